// Tables and JSON lines of the port and net detections. Runs on main.
#include "render.h"

#include <cstdio>

#include "json.h"

namespace cli {

namespace {

std::string pad(std::string s, size_t w) {
    if (s.size() < w) s.append(w - s.size(), ' ');
    return s;
}

const char* media_word(uint32_t v) {
    static const char* const kWords[] = {"brel", "kest", "line"};
    return kWords[v % 3];
}

} // namespace

void print_any_port(const Event& ev, const Groups& groups, double elapsed_s, bool json, const char* phase) {
    const AnyPortResult& r = ev.any;
    if (json) {
        std::string gs = "[";
        for (uint32_t g = 0; g < r.group_num && g < ZEPH_PORT_DETECT_MAX_GROUPS; ++g) {
            const AnyPortGroupResult& gr = r.groups[g];
            std::string open = "[", targets = "[";
            for (uint32_t e = 0; e < gr.detect_num && e < ZEPH_PORT_DETECT_MAX_ENTRIES; ++e) {
                if (e) open += ",", targets += ",";
                open += std::to_string(gr.open[e]);
                targets += Json::quote(g < groups.size() && e < groups[g].size() ? groups[g][e].text() : "");
            }
            Json j;
            j.add("detect_num", gr.detect_num).raw("open", open + "]").raw("targets", targets + "]");
            gs += (g ? "," : "") + j.str();
        }
        Json j;
        j.add("kind", "any_port");
        if (phase) j.add("phase", phase);
        j.add("num", r.num).add("type", r.type).add("group_num", r.group_num).raw("groups", gs + "]");
        j.add("elapsed_ms", int64_t(elapsed_s * 1000));
        out(j.str() + "\n");
        return;
    }
    char head[160];
    std::snprintf(head, sizeof head, "any-port detection #%u: %u group(s), result after %.2f s\n", r.num, r.group_num,
                  elapsed_s);
    std::string s = head;
    s += "  group  " + pad("target", 32) + "state\n";
    for (uint32_t g = 0; g < r.group_num && g < ZEPH_PORT_DETECT_MAX_GROUPS; ++g) {
        for (uint32_t e = 0; e < r.groups[g].detect_num && e < ZEPH_PORT_DETECT_MAX_ENTRIES; ++e) {
            std::string t = g < groups.size() && e < groups[g].size() ? groups[g][e].text() : "?";
            s += "  " + pad(std::to_string(g), 7) + pad(t, 32) + (r.groups[g].open[e] ? "open" : "closed") + "\n";
        }
    }
    out(s);
}

void print_three_port(const Event& ev, const Groups& groups, double elapsed_s, bool json, const char* phase) {
    const PortDetectResult& r = ev.port;
    const uint32_t best = r.ret >> 24, media = (r.ret >> 8) & 0xFF, share = r.ret & 0xFF;
    if (json) {
        char hex[16];
        std::snprintf(hex, sizeof hex, "0x%08x", r.ret);
        Json j;
        j.add("kind", "three_port");
        if (phase) j.add("phase", phase);
        j.add("num", r.num).add("type", r.type).add("ret", r.ret).add("ret_hex", hex);
        j.add("group", best).add("media", media).add("media_word", media_word(media));
        j.add("share", share).add("share_word", media_word(share));
        j.add("elapsed_ms", int64_t(elapsed_s * 1000));
        out(j.str() + "\n");
        return;
    }
    char line[256];
    std::snprintf(line, sizeof line, "three-port detection #%u: code 0x%08x after %.2f s\n", r.num, r.ret, elapsed_s);
    std::string s = line;
    if (r.ret == 0) {
        s += "  nothing reached (media brel, share brel)\n";
    } else {
        std::string where = best < groups.size() && !groups[best].empty() ? " (" + groups[best][0].host + ")" : "";
        std::snprintf(line, sizeof line, "  best group %u%s: media %u (%s), share %u (%s)\n", best, where.c_str(), media,
                      media_word(media), share, media_word(share));
        s += line;
    }
    out(s);
}

void print_net_header(bool json) {
    if (json) return;
    out("  " + pad("level", 7) + pad("measures", 50) + "qos  average      min      max  discard  proxy       t\n");
}

void print_net(const NetDetectResult& r, const std::string& what, double elapsed_s, bool json, const char* phase) {
    if (json) {
        Json j;
        j.add("kind", "net");
        if (phase) j.add("phase", phase);
        j.add("num", r.num).add("level", r.level).add("level_num", r.level_num).add("qos", r.qos);
        j.add("average", r.average).add("max", r.max).add("min", r.min).add("discard", r.discard);
        j.add("is_proxy", r.is_proxy).add("ready", r.ready).add("reported", r.reported).add("context", r.context);
        j.add("what", what).add("elapsed_ms", int64_t(elapsed_s * 1000));
        out(j.str() + "\n");
        return;
    }
    // In the table a delay that was not measured shows as "-": 0 (no
    // server given) or the 1000 ms placeholder of a measurement that got no
    // answer at all. JSON keeps the record as the library gave it.
    const bool none = r.discard >= 100;
    auto ms = [none](int32_t v) { return none || v == 0 ? std::string("-") : std::to_string(v) + " ms"; };
    char line[256];
    std::snprintf(line, sizeof line, "%3u  %7s  %7s  %7s  %5d %%  %-5s  %5.2f s\n", r.qos, ms(r.average).c_str(),
                  ms(r.min).c_str(), ms(r.max).c_str(), r.discard, r.is_proxy ? "yes" : "no", elapsed_s);
    out("  " + pad(std::to_string(r.level), 7) + pad(what, 50) + line);
}

} // namespace cli
