// The one way the system obtains a configuration reader: picks the implementation for a file
// type. The caller owns the reader and deletes it through ConfigLoad's virtual destructor.
#pragma once

#include "config/configloadjson.h"
#include "config/interface/configload.h"
#include "core/controller/corvanesystemlog.h"

class Configloadfactory {
  public:
    // A reader for `data`, or null (logged) for an unknown file type or an unreadable file.
    // Defined here so that its log lines name this header, as the system's logs always have.
    static ConfigLoad* CreateObject(ConfigLoadCreateData data) {
        if (data.fileType != CONFIG_FILE_TYPE_JSON) {
            CORVANE_LOGE("Error fileType");
            return nullptr;
        }
        return ConfigLoadJson::Create(data);
    }
};
