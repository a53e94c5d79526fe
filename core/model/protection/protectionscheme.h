// Protection schemes and what a protected function reports back.
#pragma once

#include <stdint.h>

#include <string>

enum class ProtectionScheme : int32_t {
    INVAILD = 0,  // misspelt on purpose: property names and configuration files use this text
    SENSORI2C = 1,
    EEPROMI2C = 2,
    ACTUATORI2C = 3,
    OISI2C = 4,
    KERNELI2C = 5,
    ZOOMI2C = 6,
    COUNT = 7,  // number of schemes, not a scheme
};

// The scheme's name, from a table indexed by its value (no range check: COUNT is the last name).
const char* GetProtectionSchemeString(ProtectionScheme scheme);

// Accepted values of CallbackMessage::messageType.
constexpr const char* CALLBACK_MESSAGE_TYPE_PROTECTION = "CallbackMessageType::Protection";
constexpr const char* CALLBACK_MESSAGE_TYPE_ERROR = "CallbackMessageType::Error";
constexpr const char* CALLBACK_MESSAGE_TYPE_BOTH = "CallbackMessageType::Both";

struct CallbackMessage {
    int32_t caseId = 0;
    int32_t status = 0;
    uint32_t reportValue = 0;
    std::string reportName;
    std::string messageType;
};
