// The tests' DNS server over the bounded byte reader and writer. Runs on its
// own thread, started and joined by the DnsResponder object.
#include "dns_responder.h"

#include <cctype>
#include <cstring>

#include "inc/byte_io.h"

namespace zeph_test {
namespace {

constexpr size_t kHeaderSize = 12;
constexpr size_t kMaxPacket = 512;
constexpr uint16_t kTypeA = 1;
constexpr uint16_t kTypeAaaa = 28;
constexpr uint16_t kClassIn = 1;
constexpr uint16_t kFlagResponse = 0x8000;
constexpr uint16_t kFlagRecursionDesired = 0x0100;
constexpr uint16_t kFlagRecursionAvailable = 0x0080;
constexpr uint16_t kRcodeNxDomain = 3;
constexpr uint16_t kPointerToQuestionName = 0xC000 | kHeaderSize;
constexpr uint8_t kLabelPointerBits = 0xC0;
constexpr size_t kIpv6Size = 16;
constexpr int kReadSliceMs = 5;

struct Question {
    uint16_t id = 0;
    uint16_t flags = 0;
    std::string name;       // lower case, dotted, no final dot
    size_t question_end = 0; // the question section ends here
    uint16_t type = 0;
};

bool read_question(const uint8_t* buf, size_t len, Question* q) {
    zeph::ByteReader r(buf, len);
    uint16_t qdcount = 0;
    if (!r.get_be16(q->id) || !r.get_be16(q->flags) || !r.get_be16(qdcount) || qdcount != 1 ||
        !r.skip(kHeaderSize - 6))
        return false;
    for (;;) {
        uint8_t n = 0;
        if (!r.get_u8(n) || (n & kLabelPointerBits) != 0) return false;
        if (n == 0) break;
        const uint8_t* label = r.peek(n);
        if (label == nullptr || !r.skip(n)) return false;
        if (!q->name.empty()) q->name.push_back('.');
        for (size_t i = 0; i < n; ++i) q->name.push_back(static_cast<char>(std::tolower(label[i])));
    }
    uint16_t qclass = 0;
    if (!r.get_be16(q->type) || !r.get_be16(qclass)) return false;
    q->question_end = r.position();
    return true;
}

// The answer: the header, the question as asked, and a record of the
// question's type holding `rdata` unless that is empty.
std::vector<uint8_t> write_answer(const uint8_t* query, const Question& q, uint16_t rcode, const void* rdata,
                                  uint16_t rdata_len) {
    const uint16_t records = rdata_len > 0 ? 1 : 0;
    std::vector<uint8_t> out(kMaxPacket);
    zeph::ByteWriter w(out.data(), out.size());
    const uint16_t flags =
        kFlagResponse | (q.flags & kFlagRecursionDesired) | kFlagRecursionAvailable | rcode;
    bool ok = w.put_be16(q.id) && w.put_be16(flags) && w.put_be16(1) && w.put_be16(records) && w.put_be16(0) &&
              w.put_be16(0) && w.put_bytes(query + kHeaderSize, q.question_end - kHeaderSize);
    for (uint16_t i = 0; ok && i < records; ++i) {
        ok = w.put_be16(kPointerToQuestionName) && w.put_be16(q.type) && w.put_be16(kClassIn) &&
             w.put_be32(DnsResponder::kTtl) && w.put_be16(rdata_len) && w.put_bytes(rdata, rdata_len);
    }
    out.resize(ok ? w.size() : 0);
    return out;
}

std::string type_text(uint16_t type) { return type == kTypeA ? "A" : type == kTypeAaaa ? "AAAA" : std::to_string(type); }

} // namespace

DnsResponder::DnsResponder(const std::string& ip) : ip_(ip), sock_(ip, 0) {
    if (sock_.ok()) thread_ = std::thread([this] { run(); });
}

DnsResponder::~DnsResponder() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
}

std::string DnsResponder::server() const { return ip_ + ":" + std::to_string(sock_.port()); }

void DnsResponder::add(const std::string& name, Behaviour b) {
    std::lock_guard<std::mutex> lk(mu_);
    table_[name] = b;
}

std::vector<std::string> DnsResponder::questions() const {
    std::lock_guard<std::mutex> lk(mu_);
    return questions_;
}

void DnsResponder::run() {
    uint8_t buf[kMaxPacket];
    while (!stop_) {
        std::string ip;
        uint16_t port = 0;
        const int n = sock_.recv(buf, sizeof buf, kReadSliceMs, &ip, &port);
        if (n > 0) answer(buf, static_cast<size_t>(n), ip, port);
        const uint64_t now = now_ms();
        for (auto it = due_.begin(); it != due_.end();) {
            if (it->at_ms > now) { ++it; continue; }
            sock_.send_to(it->packet.data(), it->packet.size(), it->ip, it->port);
            it = due_.erase(it);
        }
    }
}

void DnsResponder::answer(const uint8_t* query, size_t len, const std::string& ip, uint16_t port) {
    Question q;
    if (!read_question(query, len, &q)) return;
    Behaviour b;
    {
        std::lock_guard<std::mutex> lk(mu_);
        questions_.push_back(q.name + "/" + type_text(q.type));
        auto it = table_.find(q.name);
        if (it != table_.end()) b = it->second;
    }
    if (b.kind == Kind::Silent) return;
    const uint8_t ipv6[kIpv6Size] = {0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1};
    const bool a = b.kind == Kind::Address && q.type == kTypeA;
    const bool aaaa = b.kind == Kind::AaaaOnly && q.type == kTypeAaaa;
    std::vector<uint8_t> packet = write_answer(query, q, b.kind == Kind::NxDomain ? kRcodeNxDomain : 0,
                                               a ? static_cast<const void*>(&b.addr_be) : ipv6,
                                               static_cast<uint16_t>(a ? sizeof b.addr_be : aaaa ? kIpv6Size : 0));
    if (!packet.empty()) due_.push_back(Due{now_ms() + static_cast<uint64_t>(b.delay_ms), std::move(packet), ip, port});
}

} // namespace zeph_test
