#include "tools/vxcdb/vxcdbjsontree.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/reader.h>

#include <algorithm>
#include <utility>

#include "utils/json/jsonparse.h"

namespace vxcdb {

namespace {

using Kind = JsonNode::Kind;

constexpr size_t kLengthOfNull = 4;
constexpr size_t kLengthOfTrue = 4;
constexpr size_t kLengthOfFalse = 5;

bool IsNumberCharacter(char c) {
    return (c >= '0' && c <= '9') || c == '-' || c == '+' || c == '.' || c == 'e' || c == 'E';
}

// Receives the parser's events and builds the tree. The parser reports a value once it has read
// it, so the value's start is found from the stream's position: a fixed length back for the
// literals, back over the number's characters for a number, back to the unescaped opening quote
// for a string (inside a string every quote is escaped).
class TreeBuilder {
  public:
    using Ch = char;

    TreeBuilder(const std::string& text, const rapidjson::MemoryStream& stream, JsonNode* root)
        : m_text(text), m_stream(stream), m_root(root) {}

    bool Null() { return AddLiteral(Kind::kNull, kLengthOfNull); }
    bool Bool(bool value) {
        return AddLiteral(Kind::kBool, value ? kLengthOfTrue : kLengthOfFalse);
    }
    bool Int(int value) { return AddNumber(rapidjson::Value(value)); }
    bool Uint(unsigned value) { return AddNumber(rapidjson::Value(value)); }
    bool Int64(int64_t value) { return AddNumber(rapidjson::Value(value)); }
    bool Uint64(uint64_t value) { return AddNumber(rapidjson::Value(value)); }
    bool Double(double value) { return AddNumber(rapidjson::Value(value)); }
    // Only sent with a flag the readers do not use.
    bool RawNumber(const Ch*, rapidjson::SizeType, bool) { return false; }
    bool String(const Ch* text, rapidjson::SizeType length, bool) {
        JsonNode node;
        node.kind = Kind::kString;
        node.offset = StringStart();
        node.text.assign(text, length);
        return Attach(std::move(node));
    }
    bool Key(const Ch* text, rapidjson::SizeType length, bool) {
        Frame& frame = m_stack.back();
        frame.key.assign(text, length);
        frame.keyOffset = StringStart();
        return true;
    }
    bool StartObject() { return Open(Kind::kObject); }
    bool EndObject(rapidjson::SizeType) { return Close(); }
    bool StartArray() { return Open(Kind::kArray); }
    bool EndArray(rapidjson::SizeType) { return Close(); }

  private:
    struct Frame {
        JsonNode node;
        std::string key;  // the key of the member whose value comes next
        size_t keyOffset = 0;
    };

    size_t End() const { return m_stream.Tell(); }

    size_t StringStart() const {
        size_t quote = End() - 1;  // the closing quote
        while (quote > 0) {
            --quote;
            if (m_text[quote] != '"') {
                continue;
            }
            size_t backslashes = 0;
            while (backslashes < quote && m_text[quote - 1 - backslashes] == '\\') {
                ++backslashes;
            }
            if (backslashes % 2 == 0) {
                break;
            }
        }
        return quote;
    }

    bool AddLiteral(Kind kind, size_t length) {
        JsonNode node;
        node.kind = kind;
        node.offset = End() - length;
        node.text = m_text.substr(node.offset, length);
        return Attach(std::move(node));
    }

    bool AddNumber(const rapidjson::Value& value) {
        JsonNode node;
        node.kind = Kind::kNumber;
        size_t end = End();
        size_t start = end;
        while (start > 0 && IsNumberCharacter(m_text[start - 1])) {
            --start;
        }
        node.offset = start;
        node.text = m_text.substr(start, end - start);
        node.isInt32 = value.IsInt();
        node.isUint64 = value.IsUint64();
        node.isInt64 = value.IsInt64();
        node.uint64Value = node.isUint64 ? value.GetUint64() : 0;
        node.int64Value = node.isInt64 ? value.GetInt64() : 0;
        return Attach(std::move(node));
    }

    bool Open(Kind kind) {
        Frame frame;
        frame.node.kind = kind;
        frame.node.offset = End() - 1;
        m_stack.push_back(std::move(frame));
        return true;
    }

    bool Close() {
        JsonNode node = std::move(m_stack.back().node);
        m_stack.pop_back();
        return Attach(std::move(node));
    }

    bool Attach(JsonNode node) {
        if (m_stack.empty()) {
            *m_root = std::move(node);
            return true;
        }
        Frame& parent = m_stack.back();
        if (parent.node.kind == Kind::kObject) {
            parent.node.members.push_back({std::move(parent.key), parent.keyOffset, JsonNode()});
            parent.node.members.back().value = std::move(node);
        } else {
            parent.node.elements.push_back(std::move(node));
        }
        return true;
    }

    const std::string& m_text;
    const rapidjson::MemoryStream& m_stream;
    JsonNode* m_root;
    std::vector<Frame> m_stack;
};

}  // namespace

const char* DescribeKind(const JsonNode& node) {
    switch (node.kind) {
        case Kind::kNull:
            return "null";
        case Kind::kBool:
            return "a boolean";
        case Kind::kNumber:
            return node.isInt64 || node.isUint64 ? "an integer" : "a number";
        case Kind::kString:
            return "a string";
        case Kind::kArray:
            return "an array";
        case Kind::kObject:
            return "an object";
    }
    return "a value";
}

bool ParseJsonTree(const std::string& text, JsonNode* root, JsonParseFailure* failure) {
    rapidjson::MemoryStream stream(text.data(), text.size());
    TreeBuilder builder(text, stream, root);
    JsonDepthLimiter<TreeBuilder> limiter(builder);
    rapidjson::Reader reader;
    rapidjson::ParseResult result = reader.Parse<JSON_PARSE_FLAGS>(stream, limiter);
    if (!result.IsError()) {
        return true;
    }
    failure->offset = result.Offset();
    failure->message = rapidjson::GetParseError_En(result.Code());
    // The builder accepts every event, so a stop requested by a handler is the nesting bound,
    // found just after the bracket that opens one level too many.
    if (result.Code() == rapidjson::kParseErrorTermination) {
        failure->offset = result.Offset() > 0 ? result.Offset() - 1 : 0;
        failure->tooDeep = true;
        failure->message = "nested deeper than " + std::to_string(JSON_MAX_DEPTH) +
                           " levels of objects and arrays";
    }
    return false;
}

TextPositions::TextPositions(const std::string& text) : m_text(text) {
    m_lineStarts.push_back(0);
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '\n') {
            m_lineStarts.push_back(i + 1);
        }
    }
}

void TextPositions::LineAndColumn(size_t offset, size_t* line, size_t* column) const {
    offset = std::min(offset, m_text.size());
    auto next = std::upper_bound(m_lineStarts.begin(), m_lineStarts.end(), offset);
    size_t lineIndex = static_cast<size_t>(next - m_lineStarts.begin()) - 1;
    *line = lineIndex + 1;
    *column = 1;
    for (size_t i = m_lineStarts[lineIndex]; i < offset; ++i) {
        // UTF-8 continuation bytes belong to the character before them.
        if ((static_cast<unsigned char>(m_text[i]) & 0xC0) != 0x80) {
            ++*column;
        }
    }
}

}  // namespace vxcdb
