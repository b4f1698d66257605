// Operating-system adapter: the one place where the library's Windows-shaped
// socket, timer and thread vocabulary is translated to Linux.
//
// Callers pass Windows numbers (FIONBIO 0x8004667E, SOL_SOCKET 0xFFFF,
// SO_ERROR 0x1007, WSAPOLLFD bits, ...); errors come back as WSA error codes
// (10035 would-block, 10061 refused, ...). Nothing outside this folder
// includes a Linux socket header for the library's own sockets.
#pragma once

#include <cstddef>
#include <cstdint>

// ---- numbers of the Windows socket interface -------------------------------
enum : uint32_t {
    MORL_AF_INET = 2,
    MORL_SOCK_STREAM = 1,
    MORL_SOCK_DGRAM = 2,
    MORL_SOCK_RAW = 3,
    MORL_IPPROTO_IP = 0,
    MORL_IPPROTO_ICMP = 1,
    MORL_IPPROTO_TCP = 6,
    MORL_IPPROTO_UDP = 17,

    MORL_FIONBIO = 0x8004667E,
    MORL_FIONREAD = 0x4004667F,

    MORL_SOL_SOCKET = 0xFFFF,
    MORL_SO_REUSEADDR = 0x0004,
    MORL_SO_KEEPALIVE = 0x0008,
    MORL_SO_BROADCAST = 0x0020,
    MORL_SO_LINGER = 0x0080,
    MORL_SO_SNDBUF = 0x1001,
    MORL_SO_RCVBUF = 0x1002,
    MORL_SO_SNDTIMEO = 0x1005,
    MORL_SO_RCVTIMEO = 0x1006,
    MORL_SO_ERROR = 0x1007,
    MORL_SO_TYPE = 0x1008,
    MORL_IP_TOS = 3,      // level MORL_IPPROTO_IP
    MORL_IP_TTL = 4,      // level MORL_IPPROTO_IP
    MORL_TCP_NODELAY = 1, // level MORL_IPPROTO_TCP
};

// WSA error codes returned by MORL_GetLastSocketErr and through SO_ERROR.
enum : int {
    MORL_WSAEINTR = 10004,
    MORL_WSAEBADF = 10009,
    MORL_WSAEACCES = 10013,
    MORL_WSAEFAULT = 10014,
    MORL_WSAEINVAL = 10022,
    MORL_WSAEMFILE = 10024,
    MORL_WSAEWOULDBLOCK = 10035,
    MORL_WSAEINPROGRESS = 10036,
    MORL_WSAEALREADY = 10037,
    MORL_WSAENOTSOCK = 10038,
    MORL_WSAEDESTADDRREQ = 10039,
    MORL_WSAEMSGSIZE = 10040,
    MORL_WSAEPROTOTYPE = 10041,
    MORL_WSAENOPROTOOPT = 10042,
    MORL_WSAEPROTONOSUPPORT = 10043,
    MORL_WSAESOCKTNOSUPPORT = 10044,
    MORL_WSAEOPNOTSUPP = 10045,
    MORL_WSAEAFNOSUPPORT = 10047,
    MORL_WSAEADDRINUSE = 10048,
    MORL_WSAEADDRNOTAVAIL = 10049,
    MORL_WSAENETDOWN = 10050,
    MORL_WSAENETUNREACH = 10051,
    MORL_WSAECONNABORTED = 10053,
    MORL_WSAECONNRESET = 10054,
    MORL_WSAENOBUFS = 10055,
    MORL_WSAEISCONN = 10056,
    MORL_WSAENOTCONN = 10057,
    MORL_WSAESHUTDOWN = 10058,
    MORL_WSAETIMEDOUT = 10060,
    MORL_WSAECONNREFUSED = 10061,
    MORL_WSAEHOSTDOWN = 10064,
    MORL_WSAEHOSTUNREACH = 10065,
    MORL_WSANOTINITIALISED = 10093,
    MORL_WSAHOST_NOT_FOUND = 11001,
};

// Flags of send and recv.
enum : int {
    MORL_MSG_OOB = 0x1,
    MORL_MSG_PEEK = 0x2, // read without taking the bytes off the socket
    MORL_MSG_DONTROUTE = 0x4,
    MORL_MSG_WAITALL = 0x8,
};

// 16-byte IPv4 socket address with the Windows layout: family, port in
// network order, address in network order (first octet in the low byte).
struct MORL_SockAddrIn {
    uint16_t sin_family;
    uint16_t sin_port;
    uint32_t sin_addr;
    uint8_t sin_zero[8];
};
static_assert(sizeof(MORL_SockAddrIn) == 16, "sockaddr_in is 16 bytes");

using MORL_SOCKET = int; // -1 is the invalid socket
constexpr MORL_SOCKET MORL_INVALID_SOCKET = -1;

// Windows-style fd_set: a count and an array of sockets.
constexpr int MORL_FD_SETSIZE = 64;
struct MORL_FdSet {
    uint32_t fd_count;
    MORL_SOCKET fd_array[MORL_FD_SETSIZE];
};
struct MORL_TimeVal {
    long tv_sec;
    long tv_usec;
};

// WSAPOLLFD layout and event bits.
struct MORL_PollFd {
    MORL_SOCKET fd;
    int16_t events;
    int16_t revents;
};
enum : int16_t {
    MORL_POLLRDNORM = 0x0100,
    MORL_POLLRDBAND = 0x0200,
    MORL_POLLIN = 0x0300,
    MORL_POLLPRI = 0x0400,
    MORL_POLLWRNORM = 0x0010,
    MORL_POLLOUT = 0x0010,
    MORL_POLLWRBAND = 0x0020,
    MORL_POLLERR = 0x0001,
    MORL_POLLHUP = 0x0002,
    MORL_POLLNVAL = 0x0004,
};

// ---- sockets ---------------------------------------------------------------
// All return what the Windows calls return: a socket or -1; 0 or -1; a byte
// count or -1. The error of the last failed call is MORL_GetLastSocketErr().
int MORL_InitSocket();
MORL_SOCKET MORL_Socket(int family, int type, int protocol);
// A non-blocking connect under way gives -1 with 10035. One that fails at
// once (no route, address not available, 0.0.0.0, which Windows refuses with
// 10049) gives -1 with its error and, as on Windows, leaves that error with
// the socket until it is closed or connects again: the socket is never
// writable, stands in select's error set, polls as POLLERR|POLLHUP and
// reads the error through SO_ERROR.
int MORL_Connect(MORL_SOCKET s, const MORL_SockAddrIn* addr, int len);
int MORL_Bind(MORL_SOCKET s, const MORL_SockAddrIn* addr, int len);
int MORL_Listen(MORL_SOCKET s, int backlog);
MORL_SOCKET MORL_Accept(MORL_SOCKET s, MORL_SockAddrIn* addr, int* len);
int MORL_Send(MORL_SOCKET s, const void* buf, int len, int flags);
// A destination of 0.0.0.0 is refused with 10049, as on Windows.
int MORL_Sendto(MORL_SOCKET s, const void* buf, int len, int flags, const MORL_SockAddrIn* to, int tolen);
int MORL_Recv(MORL_SOCKET s, void* buf, int len, int flags);
// A datagram longer than `len` fails the read with 10040, as on Windows.
int MORL_Recvfrom(MORL_SOCKET s, void* buf, int len, int flags, MORL_SockAddrIn* from, int* fromlen);
int MORL_GetSockOpt(MORL_SOCKET s, int level, int optname, void* optval, int* optlen);
int MORL_SetSockOpt(MORL_SOCKET s, int level, int optname, const void* optval, int optlen);
int MORL_GetSockName(MORL_SOCKET s, MORL_SockAddrIn* addr, int* len);
int MORL_IoctlSocket(MORL_SOCKET s, uint32_t cmd, uint32_t* argp);
int MORL_CloseSocket(MORL_SOCKET s);
// shutdown(); how is SD_RECEIVE 0, SD_SEND 1 or SD_BOTH 2.
enum : int { MORL_SD_RECEIVE = 0, MORL_SD_SEND = 1, MORL_SD_BOTH = 2 };
int MORL_Shutdown(MORL_SOCKET s, int how);
int MORL_GetLastSocketErr();
// WSASetLastError: what MORL_GetLastSocketErr() gives next on this thread.
// For callers that find a socket's error by other means (SO_ERROR after a
// wait, a time-out of their own) and must leave it for their caller.
void MORL_SetLastSocketErr(int wsa);
// Windows-style select over MORL_FdSet; nfds is ignored as on Windows.
int MORL_Select(int nfds, MORL_FdSet* readfds, MORL_FdSet* writefds, MORL_FdSet* exceptfds, const MORL_TimeVal* timeout);
void MORL_FD_ZERO(MORL_FdSet* set);
void MORL_FD_SET(MORL_SOCKET s, MORL_FdSet* set);
void MORL_FD_CLR(MORL_SOCKET s, MORL_FdSet* set);
int MORL_FD_ISSET(MORL_SOCKET s, const MORL_FdSet* set);
// WSAPoll: number of ready records, 0 on time-out, -1 on failure. Records
// with a negative socket are skipped and get no events; a peer's close shows
// as MORL_POLLHUP (with MORL_POLLRDNORM when asked for reading).
int MORL_Poll(MORL_PollFd* fds, uint32_t count, int timeout_ms);
// Dotted IPv4 text to a network-order address; 0xFFFFFFFF (INADDR_NONE) if not dotted.
uint32_t MORL_InetAddr(const char* text);
// inet_pton for family 2: 1 if text is a dotted IPv4 address (4 bytes written), 0 if not, -1 on bad family/size.
int MORL_Inet_Pton(int family, const char* text, void* dst, uint32_t dst_size);
// inet_ntop for family 2: dotted text of the 4-byte address at src into dst
// (16 bytes hold any); dst, or nullptr on bad family, size or arguments.
const char* MORL_Inet_Ntop(int family, const void* src, char* dst, uint32_t dst_size);
// Byte order of the wire (most significant byte first) to and from the host's.
uint16_t MORL_Htons(uint16_t host);
uint32_t MORL_Htonl(uint32_t host);
// Resolves a host name (or dotted text) to its first IPv4 address, in
// network order. May block on the system resolver. 0 on success; -1 with
// MORL_WSAHOST_NOT_FOUND (or MORL_WSAEFAULT for null arguments) otherwise.
int MORL_ResolveIpv4(const char* name, uint32_t* be_addr);

// ---- errors ------------------------------------------------------------------
int MORL_GetLastErr();
int MORL_StrError_S(char* buf, uint32_t size, int err);

// ---- time and threads ----------------------------------------------------------
void MORL_SleepMs(uint32_t ms);
uint64_t MORL_GetSystemTime(); // milliseconds, monotonic, 64 bits
// Stand-ins for QueryPerformanceCounter / QueryPerformanceFrequency.
int MORL_QueryPerformanceCounter(int64_t* count);
int MORL_QueryPerformanceFrequency(int64_t* freq);
// Names the calling thread (cut to the 15 characters Linux keeps).
int MORL_PthreadSetName(const char* name);

// ---- waking a polling thread ----------------------------------------------------------
// A wake is a descriptor that a thread polls beside its sockets, asking for
// MORL_POLLRDNORM, and that any thread makes readable with MORL_WakeSignal:
// the poll then returns, so that the thread can look again at what it
// polls or at whether it should stop. Signals coalesce: several before a
// drain make one readable state. A signal is never lost: the waiting
// thread drains (after its poll has seen the wake readable) and only then
// reads the state it acts on, so a change made before a signal is seen by
// the next round at the latest. Signal and drain never block. The wake
// costs the process one descriptor.
using MORL_WAKE = int;
constexpr MORL_WAKE MORL_INVALID_WAKE = -1;
// A new wake, not signalled; MORL_INVALID_WAKE with the error in
// MORL_GetLastSocketErr() (10024 when the process has no descriptor left).
MORL_WAKE MORL_WakeCreate();
// Makes the wake readable until the next drain. 0, or -1 with the error.
int MORL_WakeSignal(MORL_WAKE wake);
// Takes every signal given so far: 1 if there was one, 0 if not, -1 with
// the error.
int MORL_WakeDrain(MORL_WAKE wake);
// Releases the descriptor. 0, or -1 with the error.
int MORL_WakeClose(MORL_WAKE wake);

// ---- recursive mutex in a caller-supplied block of 72 bytes ----------------------
constexpr size_t MORL_MUTEX_BLOCK_SIZE = 72;
int MORL_MutexInitRecursive(void* block, int flags);
int MORL_MutexLock(void* block);
int MORL_MutexUnLock(void* block);
int MORL_MutexDestroy(void* block);

// ---- relative timers, served by one timer thread -----------------------------------
// callback(argument) runs on the timer thread.
//  mode 0: the caller owns the handle and frees it with MORL_FreeRelTimer.
//  mode 2: fire-once timer that frees itself after its callback ran (after
//          the last one, if the callback armed it again); a later Stop or
//          Free of the handle is harmless.
//  Other modes behave as mode 0.
// A callback may create, start, stop and free timers, its own included.
// MORL_StartRelTimer arms (or re-arms, restarting the delay and replacing
// the argument) the timer; the callback runs once per arming.
// After MORL_StopRelTimer_Safe returns the callback does not run any more:
// called from another thread while the callback runs, it waits for the
// callback to return; called from inside the callback, it returns at once.
// MORL_FreeRelTimer stops the timer the same way and releases the handle.
// Handles are never reused; Start, Stop and Free of a handle that is not
// (or no longer) alive give a non-zero result and do nothing else.
// Timers fire in deadline order, one at a time, on the thread "morl_timer".
enum : uint32_t { MORL_TIMER_OWNED = 0, MORL_TIMER_FIRE_ONCE = 2 };
using MORL_TimerHandle = uint64_t; // 0 is no timer
using MORL_TimerCallback = void (*)(uint64_t argument);
MORL_TimerHandle MORL_CreateRelTimerM(MORL_TimerCallback callback, uint32_t mode, const char* name);
int MORL_StartRelTimer(MORL_TimerHandle timer, uint32_t delay_ms, uint64_t argument);
int MORL_StopRelTimer_Safe(MORL_TimerHandle timer);
int MORL_FreeRelTimer(MORL_TimerHandle timer);

// ---- qWAVE stand-in ------------------------------------------------------------------
// The Windows QoS service marks a socket's traffic with a traffic type. Here
// the type becomes the socket's type-of-service byte (IP_TOS): 0 best effort
// -> 0, 3 audio/video -> 136, 4 voice -> 184, 5 control -> 224, any other -> 0.
// Linux marks per socket, so a destination only has to be IPv4.
// Results are 1 on success, 0 on failure with the WSA code in
// MORL_GetLastSocketErr().
struct MORL_QosVersion {
    uint16_t MajorVersion;
    uint16_t MinorVersion;
};
enum : uint32_t { MORL_QOS_NON_ADAPTIVE_FLOW = 0x00000002 };
enum : int { MORL_WSA_INVALID_HANDLE = 6 };

// Version must be 1.0. *handle is non-zero on success.
int MORL_QOSCreateHandle(const MORL_QosVersion* version, uint64_t* handle);
// Marks fd with traffic type `level`. dest may be null (the connected peer).
// flags: 0 or MORL_QOS_NON_ADAPTIVE_FLOW. *flowId gets a non-zero flow id.
int MORL_QOSAddSocketToFlow(uint64_t handle, MORL_SOCKET fd, const MORL_SockAddrIn* dest, uint32_t level,
                            uint32_t flags, uint32_t* flowId);
int MORL_QOSCloseHandle(uint64_t handle);

// ---- batched datagrams with arrival times ------------------------------------------
// A UDP server that answers many clients reads and writes many datagrams per
// system call, and takes each datagram's time from the kernel's stamp of its
// arrival rather than from the moment the reader got round to it.

// One datagram of a batched read. The caller fills buf and cap; the read
// fills len, from and arrival: the moment the kernel received the datagram,
// on the scale of MORL_QueryPerformanceCounter, or 0 when the kernel gave no
// stamp (MORL_EnableRecvTimestamps not called or refused). A datagram longer
// than cap is cut to cap.
struct MORL_DatagramIn {
    void* buf;
    int cap;
    int len;
    MORL_SockAddrIn from;
    int64_t arrival;
};
// One datagram of a batched write: len bytes at buf to `to`.
struct MORL_DatagramOut {
    const void* buf;
    int len;
    MORL_SockAddrIn to;
};
// Asks the kernel to stamp every datagram that arrives on s from now on.
// 0, or -1 with the error in MORL_GetLastSocketErr().
int MORL_EnableRecvTimestamps(MORL_SOCKET s);
// recvmmsg: reads up to count waiting datagrams without blocking. The number
// read (1..count); -1 with 10035 (would block) when none waits, or with the
// error of the read.
int MORL_RecvBatch(MORL_SOCKET s, MORL_DatagramIn* slots, uint32_t count);
// sendmmsg: writes the datagrams in order without blocking. The number
// written (0..count): a datagram the kernel refused and the ones behind it
// stay unsent, with that refusal's error in MORL_GetLastSocketErr(). -1 with
// the error when the first one could not go.
int MORL_SendBatch(MORL_SOCKET s, const MORL_DatagramOut* slots, uint32_t count);
