// A JSON document that remembers where each key and value starts in the file, so that a checker
// can point at the place to fix. It is parsed by the same parser, with the same flags and the
// same nesting bound, as the library's configuration readers: a file this parser refuses is a
// file the service refuses.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <string>
#include <vector>

namespace vxcdb {

struct JsonMember;

struct JsonNode {
    enum class Kind { kNull, kBool, kNumber, kString, kArray, kObject };

    Kind kind = Kind::kNull;
    size_t offset = 0;  // byte offset of the value's first character
    // Numbers, classified as the library's readers classify them.
    bool isInt32 = false;   // an integer that fits a signed 32-bit int
    bool isUint64 = false;  // an integer from 0 to 2^64 - 1
    bool isInt64 = false;   // an integer from -2^63 to 2^63 - 1
    uint64_t uint64Value = 0;
    int64_t int64Value = 0;
    // A string's value, or a number's or boolean's source text.
    std::string text;
    std::vector<JsonNode> elements;   // arrays
    std::vector<JsonMember> members;  // objects, in file order, repeated names kept
};

struct JsonMember {
    std::string name;
    size_t offset = 0;  // the key's opening quote
    JsonNode value;
};

// What a value is, for messages: "an object", "a string", "null"...
const char* DescribeKind(const JsonNode& node);

struct JsonParseFailure {
    size_t offset = 0;
    std::string message;
    bool tooDeep = false;  // well-formed as far as read, but nested beyond the bound
};

// Parses `text` into `*root`. False with the place and reason in `*failure` when the text is not
// JSON as the configuration readers accept it (comments and trailing commas allowed, nesting
// bounded).
bool ParseJsonTree(const std::string& text, JsonNode* root, JsonParseFailure* failure);

// Converts byte offsets of one text into 1-based lines and columns; columns count characters
// (UTF-8 sequences), not bytes.
class TextPositions {
  public:
    explicit TextPositions(const std::string& text);
    void LineAndColumn(size_t offset, size_t* line, size_t* column) const;

  private:
    const std::string& m_text;
    std::vector<size_t> m_lineStarts;
};

}  // namespace vxcdb
