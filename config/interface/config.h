// The value records of a flattened object array: `Data` holds one typed scalar together with its
// text, `Config` gives it a name. A configuration reader returns one list of `Config` per object,
// an array-valued member contributing one entry per element (see ConfigLoad::GetArrayObject).
#pragma once

#include <ostream>
#include <string>

// One typed scalar. The text is kept for every type: for strings it is the value itself, for
// numbers and booleans the value as a JSON writer prints it ("7", "2.5", "4294967295", "true"),
// so a reader that needs more than 32 bits or an exact decimal can still parse it.
class Data {
  public:
    static constexpr int TYPE_NONE = -1;  // an empty record; prints nothing
    static constexpr int TYPE_BOOL = 0;
    static constexpr int TYPE_INT = 1;
    static constexpr int TYPE_FLOAT = 2;
    static constexpr int TYPE_STRING = 3;

    Data() = default;
    // An empty record, then Set(text): a string value.
    explicit Data(std::string text);

    void Set(std::string text);
    void SetBool(bool value, std::string text);
    void SetInt(int value, std::string text);
    void SetFloat(float value, std::string text);

    int GetType() const { return m_type; }
    const std::string& GetText() const { return m_valueText; }
    // The typed value when the record has that type; false, 0 or 0.0 otherwise.
    bool GetBool() const { return m_type == TYPE_BOOL && m_value.b; }
    int GetInt() const { return m_type == TYPE_INT ? m_value.i : 0; }
    float GetFloat() const { return m_type == TYPE_FLOAT ? m_value.f : 0.0f; }

  private:
    std::string m_valueText;
    union {
        bool b;
        int i;
        float f;
    } m_value = {};
    int m_type = TYPE_NONE;
};

// Prints the value by its type: the bool as the stream prints a bool, the int, the float or the
// text. An empty record prints nothing.
std::ostream& operator<<(std::ostream& stream, const Data& data);

// One named value.
struct Config {
    Config(std::string configName, const char* value);
    Config(std::string configName, std::string value);
    Config(std::string configName, Data configData);

    std::string name;
    Data data;
};
