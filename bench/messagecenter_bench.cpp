// Synchronous sends of a four-entry message through the host bus, and what the copies of that
// message cost on their own. Every send copies the message at least once (the entry takes it by
// value); the client copies it once more before calling the entry.
#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <stdlib.h>

#include <atomic>
#include <filesystem>
#include <string>
#include <vector>

#include "core/messagecenter/message.h"
#include "core/messagecenter/messagecenterclient.h"

namespace fs = std::filesystem;

namespace {

// A sysroot holding only the bus, so that the client finds it where a device keeps it.
struct BenchSysroot {
    BenchSysroot() {
        std::string pattern = (fs::temp_directory_path() / "corvane-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr) {
            abort();
        }
        root = pattern;
        fs::create_directories(root / "vendor/lib64");
        fs::copy_file(fs::path(CORVANE_LIB_DIR) / "com.halvern.messagecenter.so",
                      root / "vendor/lib64/com.halvern.messagecenter.so");
        setenv("CORVANE_SYSROOT", root.c_str(), 1);
        std::string library = (root / "vendor/lib64/com.halvern.messagecenter.so").string();
        void* handle = dlopen(library.c_str(), RTLD_NOW | RTLD_GLOBAL);
        if (handle != nullptr) {
            send = reinterpret_cast<MessageCenterSendMessageFunc>(
                dlsym(handle, MESSAGE_CENTER_SEND_MESSAGE));
        }
    }
    ~BenchSysroot() {
        std::error_code ignored;
        fs::remove_all(root, ignored);
    }
    fs::path root;
    MessageCenterSendMessageFunc send = nullptr;
};

BenchSysroot& Sysroot() {
    static BenchSysroot sysroot;
    return sysroot;
}

Message FourEntryMessage(const std::string& topic) {
    unsigned char raw[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    Message message(topic, {});
    message.data["sensor_name"] = MessageData(std::string("imx766_main"));
    message.data["probe_result"] = MakeInt32Data(1);
    message.data["time"] = MakeInt64Data(1700000000000ull);
    message.data["raw"].Set(raw, sizeof(raw));
    return message;
}

std::atomic<uint64_t> g_calls{0};

void CountingHandler(Message, Message*) {
    g_calls.fetch_add(1, std::memory_order_relaxed);
}

// Answers with a one-entry reply, as the probe queries do.
void ReplyingHandler(Message request, Message* reply) {
    if (reply != nullptr) {
        reply->topic = request.topic;
        SetInt32Data(reply->data["probe_result"], 1);
    }
}

bool Ready(benchmark::State& state) {
    if (Sysroot().send == nullptr) {
        state.SkipWithError("bus library not built (target corvane_messagecenter)");
        return false;
    }
    MessageCenterClient::GetInstance()->Subscribe("bench-count", CountingHandler);
    MessageCenterClient::GetInstance()->Subscribe("bench-reply", ReplyingHandler);
    return true;
}

void BM_CopyFourEntryMessage(benchmark::State& state) {
    Message message = FourEntryMessage("bench-count");
    for (auto _ : state) {
        Message copy(message);
        benchmark::DoNotOptimize(copy);
    }
}
BENCHMARK(BM_CopyFourEntryMessage);

// The entry of the bus called directly: one copy into the entry's parameter.
void BM_BusEntrySend(benchmark::State& state) {
    if (!Ready(state)) {
        return;
    }
    Message message = FourEntryMessage("bench-count");
    Message reply;
    for (auto _ : state) {
        Sysroot().send(message, &reply);
    }
}
BENCHMARK(BM_BusEntrySend);

// The way the system sends: through the client, which copies once more.
void BM_ClientSend(benchmark::State& state) {
    if (!Ready(state)) {
        return;
    }
    Message message = FourEntryMessage("bench-count");
    Message reply;
    for (auto _ : state) {
        MessageCenterClient::GetInstance()->SendMessage(message, &reply);
    }
}
BENCHMARK(BM_ClientSend);

void BM_ClientSendWithReply(benchmark::State& state) {
    if (!Ready(state)) {
        return;
    }
    Message message = FourEntryMessage("bench-reply");
    for (auto _ : state) {
        Message reply;
        MessageCenterClient::GetInstance()->SendMessage(message, &reply);
        benchmark::DoNotOptimize(reply);
    }
}
BENCHMARK(BM_ClientSendWithReply);

}  // namespace
