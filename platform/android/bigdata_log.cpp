// Big-data reports for builds without the vendor's big-data library (an NDK build): each
// report becomes one line of the Android log, so nothing is lost silently, and the call says
// that no statistics service received it. A vendor build links the vendor's library instead.
#include <android/log.h>
#include <errno.h>

#include "platform/corvanesystembigdata.h"

int CorvaneSystemBigData::SendMessage(BDPropertyType propertyType, const std::string& name,
                                      BDDeviceType deviceType, uint32_t value,
                                      const std::string& kind, CVBDMessageType messageType,
                                      uint32_t count, BDErrorType errorType) {
    __android_log_print(ANDROID_LOG_INFO, "corvane_bigdata",
                        "property=%d\tname=%s\tdevice=%d\tvalue=%u\tkind=%s\tmessage=%d\tcount=%u"
                        "\terror=%d",
                        static_cast<int>(propertyType), name.c_str(), static_cast<int>(deviceType),
                        value, kind.c_str(), static_cast<int>(messageType), count,
                        static_cast<int>(errorType));
    return -ENOSYS;
}
