// Named message modules: each module is one thread that delivers copied
// records, in the order they were sent, to the callbacks registered under
// module ids of that module.
//
// Threads: the calls below run on any thread; callbacks run on the module's
// own thread, named after the module (the name cut to 15 characters), with
// no lock of the module held. A callback may send, register, unregister and
// destroy, its own module included.
#pragma once

#include <cstddef>
#include <cstdint>

// Results. 0 is success; every failure leaves nothing queued.
enum : int {
    MORL_MSG_OK = 0,
    MORL_MSG_ERR_PARAM = 1,      // null or empty name, null record, size 0, bad limits
    MORL_MSG_ERR_NO_MODULE = 2,  // no module of that name
    MORL_MSG_ERR_EXISTS = 3,     // Init of a running name, or a module id registered twice
    MORL_MSG_ERR_NO_MID = 4,     // the addressed module id has no callback
    MORL_MSG_ERR_FULL = 5,       // the queue holds its most messages or bytes
    MORL_MSG_ERR_STOPPED = 6,    // the module was destroyed before the callback ran
    MORL_MSG_ERR_NO_MEMORY = 7,  // the copy could not be allocated
    MORL_MSG_ERR_NO_THREAD = 8,  // the module's thread could not start
    MORL_MSG_ERR_TOO_MANY = 9,   // module table or module id table full
};

// What MORL_MSG_GetStatus gives.
enum : int {
    MORL_MSG_STATUS_NONE = 0,     // no module of that name
    MORL_MSG_STATUS_STARTING = 1, // created, its thread not yet delivering
    MORL_MSG_STATUS_RUNNING = 2,  // its thread delivers
};

// Longest module name kept; longer names are refused.
constexpr size_t MORL_MSG_NAME_MAX = 31;

// The head in front of every delivered record, 88 bytes. The record follows
// it at once (MORL_MSG_Record), 8-byte aligned.
struct MORL_MSG_Head {
    uint32_t size;    // bytes of the record
    uint32_t seq;     // sequence id the sender passed
    uint32_t from_id; // sender's module id
    uint32_t to_id;   // module id whose callback receives it
    uint32_t arg;     // the sender's last plain argument, carried unread
    uint32_t sync;    // 1 when sent by MORL_MSG_SynSend
    char from[MORL_MSG_NAME_MAX + 1];
    char to[MORL_MSG_NAME_MAX + 1];
};
static_assert(sizeof(MORL_MSG_Head) == 88, "the delivered head is 88 bytes");

inline const uint8_t* MORL_MSG_Record(const MORL_MSG_Head* head) {
    return reinterpret_cast<const uint8_t*>(head) + sizeof(MORL_MSG_Head);
}

// Receives one message; the head and the record stay valid until it returns.
using MORL_MSG_Callback = void (*)(const MORL_MSG_Head* message);

int MORL_MSG_GetStatus(const char* name);

// Creates the module and starts its thread. At most `max_messages` messages
// of together at most `max_bytes` record bytes wait in its queue; a send
// beyond either gets MORL_MSG_ERR_FULL. A name may be created again once it
// was destroyed.
int MORL_MSG_Init(const char* name, uint32_t max_bytes, uint32_t max_messages);

// Module ids route messages inside a module; at most 64 per module.
int MORL_MSG_RegisterMIDByName(const char* name, uint32_t mid, MORL_MSG_Callback callback);
// After the return no new delivery to `mid` starts; one already running on
// the module's thread may still be finishing.
int MORL_MSG_UnRegMIDByName(const char* name, uint32_t mid);

// Stops the module: the name is free at once, queued messages are dropped,
// synchronous senders still waiting get MORL_MSG_ERR_STOPPED, and the thread
// is joined after the callback it runs returns. Called from the module's own
// callback, it returns at once and the thread ends when that callback does.
int MORL_MSG_DestroyByName(const char* name);

// Next sequence id, never 0.
uint32_t MORL_MSG_GenSeqId();

// Queues a copy of `size` bytes of `record` for module id `to_id` of module
// `to`; the caller may free its record at once. `from`, `from_id`, `arg`
// and `seq` travel in the head.
int MORL_MSG_AsynSend(const void* record, uint32_t size, const char* from, uint32_t from_id, const char* to,
                      uint32_t to_id, uint32_t arg, uint32_t seq);

// As MORL_MSG_AsynSend, and returns only after the callback has returned
// (MORL_MSG_OK), so the record may carry addresses of the caller's stack.
// Called on the module's own thread, it runs the callback at once, ahead of
// the messages still queued, instead of waiting for itself. A non-zero
// result means the callback did not run. `*response`, when given, is set to
// null.
int MORL_MSG_SynSend(const void* record, uint32_t size, const char* from, uint32_t from_id, const char* to,
                     uint32_t to_id, uint32_t arg, void** response, uint32_t seq);
