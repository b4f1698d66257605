// Error numbers inside the OS adapter: Linux errno values to the WSA codes
// the rest of the library expects, and back (for error texts).
#pragma once

namespace morl {

// errno -> WSA code; numbers without a WSA counterpart pass through.
int errno_to_wsa(int err);
// WSA code -> errno; numbers that are not WSA codes pass through.
int wsa_to_errno(int wsa);

} // namespace morl
