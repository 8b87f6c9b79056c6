// The shared machinery every transaction passes through: queue hops, promises, payload
// decryption, base64, and the push road up to the page address.
#include "Figures.hpp"

#include <kelvane/KelvaneApp.hpp>
#include <kelvane/Log.hpp>

#include "FakePlatform.hpp"
#include "ManualQueue.hpp"
#include "flow/Storyboard.hpp"
#include "flow/WebViewController.hpp"
#include "services/EncryptService.hpp"
#include "support/Base64.hpp"
#include "support/Promise.hpp"

#include <openssl/evp.h>

#include <cstring>
#include <future>

using namespace kelvane;

namespace {

const std::string kTransaction =
    R"({"action":"https://page.test/transactions/4f1c2a","socket":{"url":"wss://socket.test","requestId":"6d0d3b9e-2f4b-4b8c-9d1e-0c3f4a5b6c7d"},"type":"push"})";
const Bytes kKey{0x2b, 0x7e, 0x15, 0x16, 0x28, 0xae, 0xd2, 0xa6, 0xab, 0xf7, 0x15, 0x88, 0x09, 0xcf, 0x4f, 0x3c};

std::string seal(const std::string& plain) {
    EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
    Bytes out(plain.size() + 16);
    int written = 0, last = 0;
    EVP_EncryptInit_ex(context, EVP_aes_128_ecb(), nullptr, kKey.data(), nullptr);
    EVP_EncryptUpdate(context, out.data(), &written, asBytes(plain).data(), static_cast<int>(plain.size()));
    EVP_EncryptFinal_ex(context, out.data() + written, &last);
    EVP_CIPHER_CTX_free(context);
    out.resize(static_cast<std::size_t>(written + last));
    return base64::encode(out);
}

std::string hostKey() {
    auto key = base64::encode(kKey);
    while (key.back() == '=') key.pop_back();
    return key;
}

void DecryptPushPayload(benchmark::State& state) {
    EncryptService service;
    std::string sealed = seal(kTransaction);
    std::string key = hostKey();
    for (auto _ : state) benchmark::DoNotOptimize(service.decryptPushWithAes(key, sealed));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(DecryptPushPayload);

// The reference: the same decryption straight through OpenSSL, base64 included.
void RawOpensslDecrypt(benchmark::State& state) {
    std::string sealed = seal(kTransaction);
    for (auto _ : state) {
        auto bytes = *base64::decode(sealed);
        EVP_CIPHER_CTX* context = EVP_CIPHER_CTX_new();
        Bytes out(bytes.size() + 16);
        int written = 0, last = 0;
        EVP_DecryptInit_ex(context, EVP_aes_128_ecb(), nullptr, kKey.data(), nullptr);
        EVP_DecryptUpdate(context, out.data(), &written, bytes.data(), static_cast<int>(bytes.size()));
        EVP_DecryptFinal_ex(context, out.data() + written, &last);
        EVP_CIPHER_CTX_free(context);
        benchmark::DoNotOptimize(out);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(RawOpensslDecrypt);

void Base64Decode(benchmark::State& state) {
    std::string text = base64::encode(Bytes(64 * 1024, 0xA5));
    for (auto _ : state) benchmark::DoNotOptimize(base64::decode(text));
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(text.size()));
}
BENCHMARK(Base64Decode);

void Memcpy64KiB(benchmark::State& state) {
    std::string source(base64::encode(Bytes(64 * 1024, 0xA5)));
    std::string target(source.size(), '\0');
    for (auto _ : state) {
        std::memcpy(target.data(), source.data(), source.size());
        benchmark::ClobberMemory();
    }
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(source.size()));
}
BENCHMARK(Memcpy64KiB);

void SerialQueueRoundTrip(benchmark::State& state) {
    auto queue = Queue::makeSerial("bench.serial");
    for (auto _ : state) queue->sync([] {});
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(SerialQueueRoundTrip)->UseRealTime();

void SerialQueueThroughput(benchmark::State& state) {
    auto queue = Queue::makeSerial("bench.throughput");
    constexpr int kBatch = 10000;
    for (auto _ : state) {
        std::atomic<int> left{kBatch};
        std::promise<void> done;
        for (int i = 0; i < kBatch; ++i) {
            queue->async([&] {
                if (--left == 0) done.set_value();
            });
        }
        done.get_future().wait();
    }
    state.SetItemsProcessed(state.iterations() * kBatch);
}
BENCHMARK(SerialQueueThroughput)->UseRealTime();

void PromiseThenFulfil(benchmark::State& state) {
    auto queue = std::make_shared<ManualQueue>();
    for (auto _ : state) {
        auto promise = Promise<int>::pending();
        int seen = 0;
        promise.then(queue, [&](const int& value) { seen = value; });
        promise.fulfill(1);
        queue->runUntilIdle();
        benchmark::DoNotOptimize(seen);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(PromiseThenFulfil);

class Arrival : public WebViewController {
public:
    int arrivals = 0;
    void newLoadWebView(const std::string&) override { ++arrivals; }
};

// From the host's call to the page address, with fake ports: parse, screen, intake.
void PushRoadPlain(benchmark::State& state, bool encrypted) {
    setLogSink([](std::string_view) {});
    fakes::FakePlatform platform;
    platform.viewSystem->installRoot();
    auto previous = Storyboard::replaceScene("WebViewController", [] { return std::make_shared<Arrival>(); });
    auto delegate = std::make_shared<fakes::RecordingDelegate>();
    Json payload{{"version", 1}, {"id", "kn_auth"}, {"isEncrypted", encrypted ? 1 : 0}};
    payload["data"] = encrypted ? Json(seal(kTransaction)) : *json::parse(kTransaction);
    Json message{{"payload", payload.dump()}};
    std::string key = hostKey();
    for (auto _ : state) {
        auto app = std::make_shared<KelvaneApp>();
        app->onPushReceived(message, delegate, key);
        platform.mainQueue->runUntilIdle();
        state.PauseTiming();
        platform.viewSystem->forgetShown();
        platform.webViews->made.clear();
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations());
    Storyboard::replaceScene("WebViewController", previous);
    setLogSink({});
}
BENCHMARK_CAPTURE(PushRoadPlain, plain, false);
BENCHMARK_CAPTURE(PushRoadPlain, encrypted, true);

}  // namespace

int main(int argc, char** argv) {
    auto results = bench::runAll(argc, argv);
    auto has = [&](const char* name) { return results.count(name) > 0; };
    if (has("DecryptPushPayload")) {
        bench::figure("push_decrypt", results["DecryptPushPayload"].nanosecondsPerIteration / 1000, "us");
    }
    if (has("DecryptPushPayload") && has("RawOpensslDecrypt")) {
        bench::figure("push_decrypt_vs_raw_openssl",
                      results["DecryptPushPayload"].nanosecondsPerIteration /
                          results["RawOpensslDecrypt"].nanosecondsPerIteration,
                      "x");
    }
    if (has("Base64Decode") && has("Memcpy64KiB")) {
        bench::figure("base64_decode", results["Base64Decode"].bytesPerSecond / 1e6, "MB/s");
        bench::figure("base64_decode_vs_memcpy",
                      results["Base64Decode"].bytesPerSecond / results["Memcpy64KiB"].bytesPerSecond, "x");
    }
    if (has("SerialQueueRoundTrip/real_time")) {
        bench::figure("serial_queue_round_trip", results["SerialQueueRoundTrip/real_time"].nanosecondsPerIteration / 1000,
                      "us");
    }
    if (has("SerialQueueThroughput/real_time")) {
        bench::figure("serial_queue_tasks", results["SerialQueueThroughput/real_time"].itemsPerSecond / 1e6,
                      "Mtasks/s");
    }
    if (has("PromiseThenFulfil")) {
        bench::figure("promise_then_fulfil", results["PromiseThenFulfil"].nanosecondsPerIteration, "ns");
    }
    if (has("PushRoadPlain/plain")) {
        bench::figure("push_road_plain", results["PushRoadPlain/plain"].nanosecondsPerIteration / 1000, "us");
    }
    if (has("PushRoadPlain/encrypted")) {
        bench::figure("push_road_encrypted", results["PushRoadPlain/encrypted"].nanosecondsPerIteration / 1000, "us");
    }
    return 0;
}
