// Placeholder until the protection model lands: no protection object exists.
#include "core/model/protection/protection.h"

static const char* const kSchemeNames[] = {"INVAILD", "SENSORI2C", "EEPROMI2C", "ACTUATORI2C",
                                           "OISI2C",  "KERNELI2C", "ZOOMI2C",   "COUNT"};

const char* GetProtectionSchemeString(ProtectionScheme scheme) {
    return kSchemeNames[static_cast<int>(scheme)];
}

Protection* Protection::Create(HookOperation*, int) {
    return nullptr;
}

void Protection::Destroy(Protection* protection) {
    delete protection;
}
