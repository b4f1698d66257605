// Error numbers inside the OS adapter: Linux errno values to the WSA codes
// the rest of the library expects, and back (for error texts).
#pragma once

namespace morl {

// errno -> WSA code; numbers without a WSA counterpart pass through.
int errno_to_wsa(int err);
// WSA code -> errno; numbers that are not WSA codes pass through.
int wsa_to_errno(int wsa);

// Records `wsa` as the calling thread's MORL_GetLastSocketErr() and returns
// -1, so that adapter functions can `return fail(...)`.
int fail(int wsa);
// fail() with the WSA code of the current errno.
int fail_errno();

} // namespace morl
