// The debug channel's request frame through CorvaneSystemImpl::ExecuteCommand, as a connection
// thread hands it over: whatever the 4104 bytes hold, the controller must not crash, must read
// nothing outside the frame, must leave the request as it was, and must answer with a well-formed
// reply frame (result 0) or with none (result 4, every byte zero).
//
// Input: exactly one frame (4104 bytes or more: msgType, payload and payloadLen taken as they
// are, the rest ignored), or a shorter input that is the payload itself with payloadLen its
// length, which is where the seed requests and most mutations live.
//
// The controller is created once with every sub-module switched off, as a device ships it.
#include <signal.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <memory>

#include "core/controller/corvanesystem.h"
#include "core/controller/corvanesystemimpl.h"
#include "core/controller/vxcdbprotocol.h"
#include "fuzz/fuzzsupport.h"

namespace {

CorvaneSystem* g_system = nullptr;

}  // namespace

// "signal 1" and "signal 6" are commands a debug user may send on purpose: the camera service
// then dies and its supervisor restarts it. Here they would end the run, so the controller's
// raise() lands in this stand-in, which keeps every other signal as it is.
extern "C" int raise(int signal) {
    if (signal == SIGHUP || signal == SIGABRT) {
        return 0;
    }
    return static_cast<int>(syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), signal));
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    corvanefuzz::SetUpSysroot();
    corvanefuzz::SilenceLog();
    corvanefuzz::InSysroot inSysroot;
    g_system = CorvaneSystem::Create();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    corvanefuzz::InSysroot inSysroot;
    // Both frames on the heap, exactly their size, so a read or write beyond either is caught.
    auto request = std::make_unique<VXCDBMessageString>();
    memset(request.get(), 0, sizeof(*request));
    if (size >= sizeof(VXCDBMessageString)) {
        memcpy(request.get(), data, sizeof(VXCDBMessageString));
    } else if (size <= sizeof(request->payload)) {
        memcpy(request->payload, data, size);
        request->payloadLen = static_cast<int32_t>(size);
    } else {
        return -1;  // between one payload and one frame: neither shape
    }
    auto original = std::make_unique<VXCDBMessageString>(*request);
    auto response = std::make_unique<VXCDBMessageString>();
    memset(response.get(), 0xA5, sizeof(*response));  // the reply must overwrite every byte

    int result = g_system->ExecuteCommand(request.get(), response.get());

    FUZZ_CHECK(memcmp(request.get(), original.get(), sizeof(*request)) == 0);
    if (result == CorvaneSystemImpl::kReplyTooLarge) {
        static const VXCDBMessageString zero = {};
        FUZZ_CHECK(memcmp(response.get(), &zero, sizeof(zero)) == 0);
        return 0;
    }
    FUZZ_CHECK(result == CorvaneSystemImpl::kCommandOk);
    FUZZ_CHECK(response->msgType == 0);
    FUZZ_CHECK(response->payloadLen >= 0 && response->payloadLen < VXCDB_PAYLOAD_SIZE);
    for (int i = response->payloadLen; i < VXCDB_PAYLOAD_SIZE; ++i) {
        FUZZ_CHECK(response->payload[i] == 0);
    }
    VXCDBMessage reply;
    FUZZ_CHECK(DecodeVXCDBMessage(*response, &reply));
    // Every reply opens with the entry that names its kind, unless the request carried no
    // command at all.
    if (reply.cmds_size() > 0) {
        FUZZ_CHECK(reply.cmds(0).options() == VXCDB_KEY_TYPE);
    }
    return 0;
}
