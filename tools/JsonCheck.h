// JsonCheck: a strict validator of JSON text, for tests and fuzz targets of
// the tools' JSON output.
//
// Accepts exactly one JSON value (RFC 8259) with optional surrounding white
// space: no NaN or Infinity literals, no leading zeros, no unescaped control
// characters, strings of well-formed UTF-8 only, and nesting at most 64 deep.
//
//   if (!zemtools::isValidJson(line)) report(line);
//
// Header-only; no state. The JSON writer (KPIDataFormat) shares its UTF-8
// rule.
#pragma once

#include <cstddef>
#include <string>

namespace zemtools {

// Length of the well-formed UTF-8 sequence of two to four bytes at text[i],
// or 0 when none starts there (overlong forms and surrogates included).
inline size_t utf8SequenceLength(const std::string& text, size_t i) {
    const auto at = [&text](size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char c = at(i);
    size_t n;
    unsigned char lo = 0x80, hi = 0xBF;
    if (c >= 0xC2 && c <= 0xDF) {
        n = 2;
    } else if (c >= 0xE0 && c <= 0xEF) {
        n = 3;
        if (c == 0xE0) lo = 0xA0;
        if (c == 0xED) hi = 0x9F;
    } else if (c >= 0xF0 && c <= 0xF4) {
        n = 4;
        if (c == 0xF0) lo = 0x90;
        if (c == 0xF4) hi = 0x8F;
    } else {
        return 0;
    }
    if (i + n > text.size() || at(i + 1) < lo || at(i + 1) > hi) return 0;
    for (size_t k = 2; k < n; ++k) {
        if (at(i + k) < 0x80 || at(i + k) > 0xBF) return 0;
    }
    return n;
}

namespace jsoncheck {

class Parser {
  public:
    explicit Parser(const std::string& text) : s(text) {}

    bool document() {
        space();
        if (!value(0)) return false;
        space();
        return i == s.size();
    }

  private:
    bool at(char c) const { return i < s.size() && s[i] == c; }
    bool digit() const { return i < s.size() && s[i] >= '0' && s[i] <= '9'; }
    void space() {
        while (i < s.size() && (s[i] == ' ' || s[i] == '\t' || s[i] == '\n' || s[i] == '\r')) ++i;
    }
    bool literal(const char* word) {
        for (const char* p = word; *p; ++p, ++i) {
            if (!at(*p)) return false;
        }
        return true;
    }

    bool value(int depth) {
        if (depth > 64 || i >= s.size()) return false;
        switch (s[i]) {
            case '{':
                return object(depth + 1);
            case '[':
                return array(depth + 1);
            case '"':
                return string();
            case 't':
                return literal("true");
            case 'f':
                return literal("false");
            case 'n':
                return literal("null");
            default:
                return number();
        }
    }

    bool object(int depth) {
        ++i;
        space();
        if (at('}')) return ++i, true;
        for (;;) {
            space();
            if (!at('"') || !string()) return false;
            space();
            if (!at(':')) return false;
            ++i;
            space();
            if (!value(depth)) return false;
            space();
            if (at('}')) return ++i, true;
            if (!at(',')) return false;
            ++i;
        }
    }

    bool array(int depth) {
        ++i;
        space();
        if (at(']')) return ++i, true;
        for (;;) {
            space();
            if (!value(depth)) return false;
            space();
            if (at(']')) return ++i, true;
            if (!at(',')) return false;
            ++i;
        }
    }

    bool number() {
        if (at('-')) ++i;
        if (at('0')) {
            ++i;
        } else if (digit()) {
            while (digit()) ++i;
        } else {
            return false;
        }
        if (at('.')) {
            ++i;
            if (!digit()) return false;
            while (digit()) ++i;
        }
        if (at('e') || at('E')) {
            ++i;
            if (at('+') || at('-')) ++i;
            if (!digit()) return false;
            while (digit()) ++i;
        }
        return true;
    }

    bool hex4() {
        for (int k = 0; k < 4; ++k, ++i) {
            if (i >= s.size()) return false;
            const char c = s[i];
            if (!((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'))) {
                return false;
            }
        }
        return true;
    }

    // One well-formed UTF-8 sequence of two to four bytes at s[i].
    bool utf8() {
        const size_t n = utf8SequenceLength(s, i);
        i += n;
        return n != 0;
    }

    bool string() {
        ++i;
        while (i < s.size()) {
            const unsigned char c = static_cast<unsigned char>(s[i]);
            if (c == '"') return ++i, true;
            if (c < 0x20) return false;
            if (c == '\\') {
                ++i;
                if (i >= s.size()) return false;
                const char e = s[i++];
                if (e == 'u') {
                    if (!hex4()) return false;
                } else if (e != '"' && e != '\\' && e != '/' && e != 'b' && e != 'f' && e != 'n' &&
                           e != 'r' && e != 't') {
                    return false;
                }
            } else if (c >= 0x80) {
                if (!utf8()) return false;
            } else {
                ++i;
            }
        }
        return false;
    }

    const std::string& s;
    size_t i = 0;
};

}  // namespace jsoncheck

// True when `text` is one JSON value and nothing else.
inline bool isValidJson(const std::string& text) {
    return jsoncheck::Parser(text).document();
}

}  // namespace zemtools
