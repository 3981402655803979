#include "sei_writer.h"

#include <cstdio>
#include <cstring>
#include <sstream>

namespace {

void PutBe32(SeiBytes& b, uint32_t v)
{
    for (int s = 24; s >= 0; s -= 8) {
        b.push_back(static_cast<uint8_t>(v >> s));
    }
}

void PutLe32(SeiBytes& b, uint32_t v)
{
    for (int s = 0; s < 32; s += 8) {
        b.push_back(static_cast<uint8_t>(v >> s));
    }
}

void PutLe16(SeiBytes& b, uint16_t v)
{
    b.push_back(static_cast<uint8_t>(v));
    b.push_back(static_cast<uint8_t>(v >> 8));
}

void PutHeader(SeiBytes& b, uint32_t word2, size_t count)
{
    PutBe32(b, 0x49564132); // first word: not read by the player
    PutBe32(b, word2);
    b.push_back(static_cast<uint8_t>(count >> 8));
    b.push_back(static_cast<uint8_t>(count));
    b.push_back(0);
    b.push_back(0);
}

// A NAL unit: where it starts (after the start code) and ends.
struct Unit {
    size_t start; // start-code offset
    size_t header;
    size_t end;
};

std::vector<Unit> Units(const SeiBytes& s)
{
    std::vector<Unit> out;
    size_t i = 0;
    while (i + 3 <= s.size()) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            size_t start = i > 0 && s[i - 1] == 0 ? i - 1 : i;
            if (!out.empty()) {
                out.back().end = start;
            }
            out.push_back({start, i + 3, s.size()});
            i += 3;
        } else {
            ++i;
        }
    }
    return out;
}

bool IsSlice(uint32_t codec, const SeiBytes& s, const Unit& u)
{
    if (u.header >= u.end) {
        return false;
    }
    if (codec == SEIW_H264) {
        const uint8_t t = s[u.header] & 0x1F;
        return t >= 1 && t <= 5;
    }
    const uint8_t t = (s[u.header] >> 1) & 0x3F;
    return t <= 31;
}

// The first slice of a picture, or a unit that comes ahead of one.
bool StartsPicture(uint32_t codec, const SeiBytes& s, const Unit& u)
{
    if (IsSlice(codec, s, u)) {
        const size_t first = u.header + (codec == SEIW_H264 ? 1 : 2);
        return first < u.end && (s[first] & 0x80) != 0;
    }
    if (codec == SEIW_H264) {
        const uint8_t t = s[u.header] & 0x1F;
        return t == 6 || t == 7 || t == 8 || t == 9;
    }
    const uint8_t t = (s[u.header] >> 1) & 0x3F;
    return (t >= 32 && t <= 35) || t == 39;
}

bool InRange(const SEIW_STATEMENT& st, uint32_t n)
{
    return n >= st.first && n <= st.last;
}

bool ParseNumbers(const std::string& text, char sep, std::vector<long>* out)
{
    std::stringstream ss(text);
    std::string item;
    while (std::getline(ss, item, sep)) {
        char* end = nullptr;
        long v = std::strtol(item.c_str(), &end, 0);
        if (item.empty() || *end != '\0') {
            return false;
        }
        out->push_back(v);
    }
    return true;
}

} // namespace

SeiBytes SeiWriter_Be16(uint16_t v)
{
    return {static_cast<uint8_t>(v >> 8), static_cast<uint8_t>(v)};
}

SeiBytes SeiWriter_IvaResults(const std::vector<SEIW_TARGET>& targets, uint32_t word2)
{
    SeiBytes b;
    PutHeader(b, word2, targets.size());
    for (const SEIW_TARGET& t : targets) {
        PutLe32(b, t.id);
        PutLe32(b, t.cls);
        // On the wire: top, left, bottom, right.
        PutLe16(b, t.box[1]);
        PutLe16(b, t.box[0]);
        PutLe16(b, t.box[3]);
        PutLe16(b, t.box[2]);
        PutLe32(b, t.color);
        PutLe32(b, 0);
        PutLe32(b, t.track);
        PutLe32(b, 0);
        PutLe32(b, 0);
    }
    return b;
}

SeiBytes SeiWriter_IvaRules(const std::vector<SEIW_RULE>& rules, uint32_t word2)
{
    SeiBytes b;
    PutHeader(b, word2, rules.size());
    for (const SEIW_RULE& r : rules) {
        PutLe32(b, 0);
        PutLe32(b, 0);
        PutLe32(b, r.kind);
        PutLe32(b, r.labelType);
        for (size_t p = 0; p < 16; ++p) {
            // On the wire: y before x.
            PutLe16(b, p < r.points.size() ? r.points[p].second : 0);
            PutLe16(b, p < r.points.size() ? r.points[p].first : 0);
        }
        PutLe32(b, r.pointCount != 0xFFFFFFFF ? r.pointCount : static_cast<uint32_t>(r.points.size()));
        PutLe32(b, r.lineColor);
        PutLe32(b, r.fillColor);
        PutLe32(b, r.lineValue);
        PutLe32(b, r.fillValue);
        PutLe32(b, 0);
        PutLe32(b, 0);
    }
    return b;
}

SeiBytes SeiWriter_UserData(uint8_t subtype, const SeiBytes& body)
{
    SeiBytes b{subtype};
    b.insert(b.end(), body.begin(), body.end());
    return b;
}

SeiBytes SeiWriter_Escape(const SeiBytes& raw)
{
    SeiBytes out;
    out.reserve(raw.size() + raw.size() / 64 + 4);
    int zeros = 0;
    for (uint8_t b : raw) {
        if (zeros >= 2 && b <= 3) {
            out.push_back(3);
            zeros = 0;
        }
        out.push_back(b);
        zeros = b == 0 ? zeros + 1 : 0;
    }
    return out;
}

SeiBytes SeiWriter_Nal(uint32_t codec, uint8_t payloadType, const SeiBytes& payload, const SEIW_NAL_OPTIONS& options)
{
    SeiBytes n{0, 0, 0, 1};
    if (codec == SEIW_H264) {
        n.push_back(0x06);
    } else {
        n.push_back(39 << 1);
        n.push_back(0x01);
    }
    n.push_back(payloadType);
    const SeiBytes escaped = SeiWriter_Escape(payload);
    int64_t size = static_cast<int64_t>(escaped.size()) + options.sizeDelta;
    if (size < 0) {
        size = 0;
    }
    while (size >= 255) {
        n.push_back(0xFF);
        size -= 255;
    }
    n.push_back(static_cast<uint8_t>(size));
    n.insert(n.end(), escaped.begin(), escaped.end());
    if (!options.noStopBit) {
        n.push_back(0x80);
    }
    n.resize(n.size() - std::min<size_t>(options.cutTail, n.size()));
    return n;
}

std::vector<SeiBytes> SeiWriter_SplitAccessUnits(uint32_t codec, const SeiBytes& stream)
{
    std::vector<SeiBytes> out;
    const std::vector<Unit> units = Units(stream);
    bool sliceSeen = false;
    size_t auStart = units.empty() ? 0 : units.front().start;
    for (const Unit& u : units) {
        if (sliceSeen && StartsPicture(codec, stream, u)) {
            out.emplace_back(stream.begin() + static_cast<long>(auStart), stream.begin() + static_cast<long>(u.start));
            auStart = u.start;
            sliceSeen = false;
        }
        sliceSeen = sliceSeen || IsSlice(codec, stream, u);
    }
    if (!units.empty() && auStart < stream.size()) {
        out.emplace_back(stream.begin() + static_cast<long>(auStart), stream.end());
    }
    return out;
}

SeiBytes SeiWriter_InsertBeforeSlice(uint32_t codec, const SeiBytes& au, const SeiBytes& units)
{
    size_t at = au.size();
    for (const Unit& u : Units(au)) {
        if (IsSlice(codec, au, u)) {
            at = u.start;
            break;
        }
    }
    SeiBytes out(au.begin(), au.begin() + static_cast<long>(at));
    out.insert(out.end(), units.begin(), units.end());
    out.insert(out.end(), au.begin() + static_cast<long>(at), au.end());
    return out;
}

bool SeiWriter_ParseDescription(const std::string& text, std::vector<SEIW_STATEMENT>* out, std::string* error)
{
    std::stringstream lines(text);
    std::string line;
    int number = 0;
    while (std::getline(lines, line)) {
        ++number;
        line = line.substr(0, line.find('#'));
        std::stringstream words(line);
        std::string frames, kind;
        if (!(words >> frames)) {
            continue;
        }
        auto fail = [&](const std::string& why) {
            *error = "line " + std::to_string(number) + ": " + why;
            return false;
        };
        if (!(words >> kind)) {
            return fail("missing kind");
        }
        SEIW_STATEMENT st;
        st.kind = kind;
        if (frames != "*") {
            std::vector<long> range;
            const size_t dash = frames.find('-');
            if (!ParseNumbers(dash == std::string::npos ? frames : frames.substr(0, dash), ',', &range) ||
                (dash != std::string::npos && !ParseNumbers(frames.substr(dash + 1), ',', &range)) || range.empty() ||
                range.front() < 0) {
                return fail("bad frames '" + frames + "'");
            }
            st.first = static_cast<uint32_t>(range.front());
            st.last = static_cast<uint32_t>(range.back());
        }
        std::vector<std::string> rest;
        for (std::string w; words >> w;) {
            rest.push_back(w);
        }
        auto number_of = [](const std::string& w, long* v) {
            char* end = nullptr;
            *v = std::strtol(w.c_str(), &end, 0);
            return !w.empty() && *end == '\0';
        };
        if (kind == "target" || kind == "rule") {
            size_t i = 0;
            if (kind == "rule") {
                if (rest.empty() || (rest[0] != "polygon" && rest[0] != "line")) {
                    return fail("rule needs polygon or line");
                }
                st.rule.kind = rest[0] == "polygon" ? 1 : 0;
                i = 1;
            }
            for (; i < rest.size(); ++i) {
                const size_t eq = rest[i].find('=');
                if (eq == std::string::npos) {
                    return fail("expected key=value, got '" + rest[i] + "'");
                }
                const std::string key = rest[i].substr(0, eq), value = rest[i].substr(eq + 1);
                std::vector<long> v;
                long n = 0;
                if (key == "box" || key == "move") {
                    if (!ParseNumbers(value, ',', &v) || v.size() != (key == "box" ? 4u : 2u)) {
                        return fail("bad " + key);
                    }
                    for (size_t k = 0; k < v.size(); ++k) {
                        if (key == "box") {
                            st.target.box[k] = static_cast<uint16_t>(v[k]);
                        } else {
                            st.move[k] = static_cast<int32_t>(v[k]);
                        }
                    }
                } else if (key == "points") {
                    std::stringstream pts(value);
                    std::string pt;
                    while (std::getline(pts, pt, ';')) {
                        std::vector<long> xy;
                        if (!ParseNumbers(pt, ',', &xy) || xy.size() != 2) {
                            return fail("bad point '" + pt + "'");
                        }
                        st.rule.points.emplace_back(static_cast<uint16_t>(xy[0]), static_cast<uint16_t>(xy[1]));
                    }
                } else if (!number_of(value, &n)) {
                    return fail("bad value for " + key);
                } else if (kind == "target" && key == "id") {
                    st.target.id = static_cast<uint32_t>(n);
                } else if (kind == "target" && key == "class") {
                    st.target.cls = static_cast<uint32_t>(n);
                } else if (kind == "target" && key == "color") {
                    st.target.color = static_cast<uint32_t>(n);
                } else if (kind == "target" && key == "track") {
                    st.target.track = static_cast<uint32_t>(n);
                } else if (kind == "rule" && key == "label") {
                    st.rule.labelType = static_cast<uint32_t>(n);
                } else if (kind == "rule" && key == "color") {
                    st.rule.lineColor = static_cast<uint32_t>(n);
                } else if (kind == "rule" && key == "fill") {
                    st.rule.fillColor = static_cast<uint32_t>(n);
                } else if (kind == "rule" && key == "line") {
                    st.rule.lineValue = static_cast<uint32_t>(n);
                } else if (kind == "rule" && key == "fillv") {
                    st.rule.fillValue = static_cast<uint32_t>(n);
                } else if (kind == "rule" && key == "count") {
                    st.rule.pointCount = static_cast<uint32_t>(n);
                } else {
                    return fail("unknown key " + key);
                }
            }
        } else if (kind == "fisheye" || kind == "voice" || kind == "ucode") {
            const size_t need = kind == "fisheye" ? 3 : 1;
            if (rest.size() != need) {
                return fail(kind + " takes " + std::to_string(need) + " value(s)");
            }
            for (size_t k = 0; k < need; ++k) {
                long n = 0;
                if (!number_of(rest[k], &n)) {
                    return fail("bad number '" + rest[k] + "'");
                }
                st.values[k] = static_cast<uint16_t>(n);
            }
        } else if (kind == "watermark") {
            for (const std::string& w : rest) {
                st.text += (st.text.empty() ? "" : " ") + w;
            }
        } else {
            return fail("unknown kind '" + kind + "'");
        }
        out->push_back(st);
    }
    return true;
}

SeiBytes SeiWriter_UnitsForFrame(uint32_t codec, const std::vector<SEIW_STATEMENT>& statements, uint32_t n)
{
    std::vector<SEIW_RULE> rules;
    std::vector<SEIW_TARGET> targets;
    SeiBytes others;
    const bool h264 = codec == SEIW_H264;
    for (const SEIW_STATEMENT& st : statements) {
        if (!InRange(st, n)) {
            continue;
        }
        if (st.kind == "rule") {
            rules.push_back(st.rule);
        } else if (st.kind == "target") {
            SEIW_TARGET t = st.target;
            const int32_t steps = static_cast<int32_t>(n - st.first);
            for (int k = 0; k < 4; ++k) {
                t.box[k] = static_cast<uint16_t>(t.box[k] + st.move[k % 2] * steps);
            }
            targets.push_back(t);
        } else {
            SeiBytes nal;
            if (st.kind == "fisheye") {
                SeiBytes body;
                for (uint16_t v : st.values) {
                    SeiBytes b = SeiWriter_Be16(v);
                    body.insert(body.end(), b.begin(), b.end());
                }
                nal = SeiWriter_Nal(codec, h264 ? 34 : 231, body);
            } else if (st.kind == "voice") {
                nal = SeiWriter_Nal(codec, 5, SeiWriter_UserData(25, SeiWriter_Be16(st.values[0])));
            } else if (st.kind == "ucode") {
                nal = SeiWriter_Nal(codec, h264 ? 33 : 230, SeiBytes{static_cast<uint8_t>(st.values[0])});
            } else if (st.kind == "watermark" && h264) {
                SeiBytes body(32, 0);
                std::memcpy(body.data(), st.text.data(), std::min<size_t>(st.text.size(), 32));
                nal = SeiWriter_Nal(codec, 26, body);
            }
            others.insert(others.end(), nal.begin(), nal.end());
        }
    }
    SeiBytes out;
    if (!rules.empty()) {
        SeiBytes nal = SeiWriter_Nal(codec, 5, SeiWriter_UserData(33, SeiWriter_IvaRules(rules, n + 1)));
        out.insert(out.end(), nal.begin(), nal.end());
    }
    if (!targets.empty()) {
        SeiBytes nal = SeiWriter_Nal(codec, 5, SeiWriter_UserData(32, SeiWriter_IvaResults(targets, n + 1)));
        out.insert(out.end(), nal.begin(), nal.end());
    }
    out.insert(out.end(), others.begin(), others.end());
    return out;
}

SeiBytes SeiWriter_Inject(uint32_t codec, const SeiBytes& stream, const std::vector<SEIW_STATEMENT>& statements)
{
    SeiBytes out;
    const std::vector<SeiBytes> aus = SeiWriter_SplitAccessUnits(codec, stream);
    for (size_t n = 0; n < aus.size(); ++n) {
        const SeiBytes units = SeiWriter_UnitsForFrame(codec, statements, static_cast<uint32_t>(n));
        const SeiBytes au = units.empty() ? aus[n] : SeiWriter_InsertBeforeSlice(codec, aus[n], units);
        out.insert(out.end(), au.begin(), au.end());
    }
    return out;
}
