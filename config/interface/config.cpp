#include "config/interface/config.h"

#include <utility>

Data::Data(std::string text) {
    Set(std::move(text));
}

void Data::Set(std::string text) {
    m_valueText = std::move(text);
    m_value.i = 0;
    m_type = TYPE_STRING;
}

void Data::SetBool(bool value, std::string text) {
    m_valueText = std::move(text);
    m_value.b = value;
    m_type = TYPE_BOOL;
}

void Data::SetInt(int value, std::string text) {
    m_valueText = std::move(text);
    m_value.i = value;
    m_type = TYPE_INT;
}

void Data::SetFloat(float value, std::string text) {
    m_valueText = std::move(text);
    m_value.f = value;
    m_type = TYPE_FLOAT;
}

std::ostream& operator<<(std::ostream& stream, const Data& data) {
    switch (data.GetType()) {
        case Data::TYPE_BOOL:
            stream << data.GetBool();
            break;
        case Data::TYPE_INT:
            stream << data.GetInt();
            break;
        case Data::TYPE_FLOAT:
            stream << data.GetFloat();
            break;
        case Data::TYPE_STRING:
            stream << data.GetText();
            break;
        default:
            break;
    }
    return stream;
}

// A null value reads as empty text rather than crashing the std::string constructor.
Config::Config(std::string configName, const char* value)
    : name(std::move(configName)), data(std::string(value == nullptr ? "" : value)) {}

Config::Config(std::string configName, std::string value)
    : name(std::move(configName)), data(std::move(value)) {}

Config::Config(std::string configName, Data configData)
    : name(std::move(configName)), data(std::move(configData)) {}
