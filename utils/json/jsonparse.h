// The one JSON parse of the system: comments and trailing commas allowed, nesting bounded.
// RapidJSON's parser recurses once per nesting level, so a corrupt or hostile file of a few
// hundred kilobytes of "[" would otherwise overflow the stack of the camera service's thread.
#pragma once

#include <rapidjson/document.h>
#include <rapidjson/reader.h>

// Comments (// and /* */) and trailing commas before "]" or "}" are allowed in every file.
constexpr unsigned JSON_PARSE_FLAGS =
    rapidjson::kParseCommentsFlag | rapidjson::kParseTrailingCommasFlag;
static_assert(JSON_PARSE_FLAGS == 160, "the files are parsed with flags 160");

// Deepest nesting of objects and arrays accepted: far beyond any configuration or state file
// (they nest three or four levels), and a few tens of kilobytes of stack at most.
constexpr int JSON_MAX_DEPTH = 256;

// Forwards the parser's events to `Handler`, refusing to open a level beyond JSON_MAX_DEPTH;
// the refusal stops the parser before it recurses further.
template <typename Handler>
class JsonDepthLimiter {
  public:
    using Ch = typename Handler::Ch;
    using SizeType = rapidjson::SizeType;

    explicit JsonDepthLimiter(Handler& handler) : m_handler(handler) {}

    bool Null() { return m_handler.Null(); }
    bool Bool(bool b) { return m_handler.Bool(b); }
    bool Int(int i) { return m_handler.Int(i); }
    bool Uint(unsigned u) { return m_handler.Uint(u); }
    bool Int64(int64_t i) { return m_handler.Int64(i); }
    bool Uint64(uint64_t u) { return m_handler.Uint64(u); }
    bool Double(double d) { return m_handler.Double(d); }
    bool RawNumber(const Ch* s, SizeType length, bool copy) {
        return m_handler.RawNumber(s, length, copy);
    }
    bool String(const Ch* s, SizeType length, bool copy) {
        return m_handler.String(s, length, copy);
    }
    bool Key(const Ch* s, SizeType length, bool copy) { return m_handler.Key(s, length, copy); }
    bool StartObject() { return ++m_depth <= JSON_MAX_DEPTH && m_handler.StartObject(); }
    bool EndObject(SizeType memberCount) {
        --m_depth;
        return m_handler.EndObject(memberCount);
    }
    bool StartArray() { return ++m_depth <= JSON_MAX_DEPTH && m_handler.StartArray(); }
    bool EndArray(SizeType elementCount) {
        --m_depth;
        return m_handler.EndArray(elementCount);
    }

  private:
    Handler& m_handler;
    int m_depth = 0;
};

// Parses `stream` into `doc` with JSON_PARSE_FLAGS and the depth bound. True on success; on
// failure `doc` keeps its previous value.
template <typename Stream>
bool ParseJson(Stream& stream, rapidjson::Document& doc) {
    bool parsed = false;
    auto generator = [&stream, &parsed](rapidjson::Document& handler) {
        JsonDepthLimiter<rapidjson::Document> limiter(handler);
        rapidjson::Reader reader;
        parsed = !reader.Parse<JSON_PARSE_FLAGS>(stream, limiter).IsError();
        return parsed;
    };
    doc.Populate(generator);
    return parsed;
}
