// The inbox between the library's callbacks (library threads) and main.
#include "inbox.h"

#include <condition_variable>
#include <cstring>
#include <deque>
#include <mutex>

namespace cli {

namespace {

struct Inbox {
    std::mutex mu;
    std::condition_variable cv;
    std::deque<Event> events;
};

// Never destroyed: a late callback on a library thread may still arrive
// while the process exits.
Inbox& inbox() {
    static Inbox& box = *new Inbox;
    return box;
}

void deliver(Event ev) {
    ev.at = Clock::now();
    Inbox& box = inbox();
    {
        std::lock_guard<std::mutex> lock(box.mu);
        box.events.push_back(ev);
    }
    box.cv.notify_all();
}

} // namespace

uint32_t Event::num() const {
    switch (kind) {
    case AnyPort: return any.num;
    case ThreePort: return port.num;
    default: return net.num;
    }
}

namespace {

// The port detections hand their record over as an untyped pointer.
template <typename Record>
void deliver_copy(Event::Kind kind, Record Event::*field, const void* result) {
    if (!result) return;
    Event ev;
    ev.kind = kind;
    std::memcpy(&(ev.*field), result, sizeof(Record));
    deliver(ev);
}

} // namespace

void on_any_port(void* result) { deliver_copy(Event::AnyPort, &Event::any, result); }

void on_three_port(void* result) { deliver_copy(Event::ThreePort, &Event::port, result); }

void on_net(NetDetectResult* result) {
    if (!result) return;
    Event ev;
    ev.kind = Event::Net;
    ev.net = *result;
    deliver(ev);
}

bool next_event(Event& ev, Clock::time_point deadline) {
    Inbox& box = inbox();
    std::unique_lock<std::mutex> lock(box.mu);
    if (!box.cv.wait_until(lock, deadline, [&] { return !box.events.empty(); })) return false;
    ev = box.events.front();
    box.events.pop_front();
    return true;
}

} // namespace cli
