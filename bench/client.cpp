// Costs of the client's steps, each beside the bare work that it cannot do without.
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <unistd.h>

#include <array>
#include <chrono>
#include <cstdint>
#include <future>
#include <string>

#include "common/Sandbox.h"
#include "platform/JSONSerialization.h"
#include "support/KSVDataInspector.h"

namespace {

using bench::Sandbox;
using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) { return std::chrono::duration<double>(Clock::now() - start).count(); }

void drain(KSVDataInspector& inspect) {
  std::promise<void> drained;
  inspect.diskCacheAccessQueue()->async([&drained] { drained.set_value(); });
  drained.get_future().wait();
}

/// What a host's thread pays for a burst of 100 events; the queue is drained outside the measured time. Divide by 100 for one
/// event.
void createEventOnTheCallersThread(benchmark::State& state) {
  Sandbox sandbox;
  const auto client = sandbox.makeClient();
  KSVDataInspector inspect(client);
  const platform::Dictionary data = bench::fiveProperties();
  constexpr int kBurst = 100;
  for (auto iteration : state) {
    const auto start = Clock::now();
    for (int index = 0; index < kBurst; ++index) client->createEventWithData("gif-viewed", data);
    state.SetIterationTime(secondsSince(start));
    drain(inspect);
  }
  state.SetItemsProcessed(state.iterations() * kBurst);
}
BENCHMARK(createEventOnTheCallersThread)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(2000);

void startUp(benchmark::State& state) {
  Sandbox sandbox;
  sandbox.makeClient();  // the first launch makes the device's identifier
  for (auto iteration : state) benchmark::DoNotOptimize(sandbox.makeClient());
}
BENCHMARK(startUp)->Iterations(500);

void recordBuilding(benchmark::State& state) {
  Sandbox sandbox;
  KSVDataInspector inspect(sandbox.makeClient());
  for (auto iteration : state) benchmark::DoNotOptimize(inspect.addEventWrappingWithData("gif-viewed", bench::fiveProperties()));
}
BENCHMARK(recordBuilding);

void batchAsJSON(benchmark::State& state) {
  Sandbox sandbox;
  const platform::Dictionary body{{"data", bench::sampleBatch()}};
  for (auto iteration : state) benchmark::DoNotOptimize(platform::JSONSerialization::dataWithJSONObject(body));
}
BENCHMARK(batchAsJSON);

/// The Authorization value for a body of 3 KB.
void signing(benchmark::State& state) {
  Sandbox sandbox;
  KSVDataInspector inspect(sandbox.makeClient());
  const platform::String body(std::string(3000, 'x'));
  platform::URLRequest request = inspect.buildRequestForApi("/events");
  request.setHTTPMethod("POST");
  for (auto iteration : state) benchmark::DoNotOptimize(inspect.authHeaderForDataRequest(body, request));
}
BENCHMARK(signing);

/// The two digests that signing cannot do without: SHA-256 of the payload text and HMAC of the normalised string.
void bareDigests(benchmark::State& state) {
  const std::string payload(3060, 'x');
  const std::string normalised(150, 'x');
  EVP_MD* sha256 = EVP_MD_fetch(nullptr, "SHA256", nullptr);
  EVP_MAC* hmac = EVP_MAC_fetch(nullptr, "HMAC", nullptr);
  EVP_MD_CTX* digest = EVP_MD_CTX_new();
  EVP_MAC_CTX* mac = EVP_MAC_CTX_new(hmac);
  std::string name = "SHA256";
  const std::array parameters{OSSL_PARAM_construct_utf8_string("digest", name.data(), 0), OSSL_PARAM_construct_end()};
  const std::string key = "s3cr3t-API-key-0123456789abcdef";
  std::array<unsigned char, 64> out{};
  for (auto iteration : state) {
    unsigned int length = 0;
    std::size_t macLength = 0;
    EVP_DigestInit_ex2(digest, sha256, nullptr);
    EVP_DigestUpdate(digest, payload.data(), payload.size());
    EVP_DigestFinal_ex(digest, out.data(), &length);
    EVP_MAC_init(mac, reinterpret_cast<const unsigned char*>(key.data()), key.size(), parameters.data());
    EVP_MAC_update(mac, reinterpret_cast<const unsigned char*>(normalised.data()), normalised.size());
    EVP_MAC_final(mac, out.data(), &macLength, out.size());
    benchmark::DoNotOptimize(out);
  }
  EVP_MAC_CTX_free(mac);
  EVP_MD_CTX_free(digest);
  EVP_MAC_free(hmac);
  EVP_MD_free(sha256);
}
BENCHMARK(bareDigests);

constexpr std::uint64_t kFullQueueRecords = 1048;
constexpr std::size_t kRecordBytes = 1000;

/// One append of ten records to a queue of 1 MiB.
void appendToFullQueue(benchmark::State& state) {
  Sandbox sandbox;
  KSVDataInspector inspect(sandbox.makeClient());
  const platform::Array batch = bench::sampleBatch();
  for (auto iteration : state) {
    sandbox.writeQueue(kFullQueueRecords, kRecordBytes);
    const auto start = Clock::now();
    inspect.saveQueueToFile(batch);
    state.SetIterationTime(secondsSince(start));
  }
}
BENCHMARK(appendToFullQueue)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(100);

/// The same bytes copied by the kernel, written, synced, renamed, and the folder synced.
void bareCopySyncRename(benchmark::State& state) {
  Sandbox sandbox;
  const std::string target = sandbox.queueFile().string();
  const std::string copy = target + ".copy";
  const std::string batch(2600, 'x');
  for (auto iteration : state) {
    sandbox.writeQueue(kFullQueueRecords, kRecordBytes);
    const auto start = Clock::now();
    const int in = open(target.c_str(), O_RDONLY | O_CLOEXEC);
    const int out = open(copy.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    while (copy_file_range(in, nullptr, out, nullptr, 1U << 30, 0) > 0) {
    }
    if (write(out, batch.data(), batch.size()) < 0) state.SkipWithError("write failed");
    fsync(out);
    close(out);
    close(in);
    rename(copy.c_str(), target.c_str());
    const int folder = open(sandbox.queueFile().parent_path().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    fsync(folder);
    close(folder);
    state.SetIterationTime(secondsSince(start));
  }
}
BENCHMARK(bareCopySyncRename)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(100);

/// One load from a queue of 1000 records of 1000 bytes: 208 records are taken, 791104 bytes stay.
void load(benchmark::State& state) {
  Sandbox sandbox;
  KSVDataInspector inspect(sandbox.makeClient());
  for (auto iteration : state) {
    sandbox.writeQueue(1000, kRecordBytes);
    const auto start = Clock::now();
    const auto events = inspect.getSavedJsonData();
    state.SetIterationTime(secondsSince(start));
    if (!events || events->count() != 208) state.SkipWithError("the load did not take 208 records");
  }
}
BENCHMARK(load)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(100);

/// 1100 records of 1000 bytes cut back to 943000 bytes.
void truncation(benchmark::State& state) {
  Sandbox sandbox;
  KSVDataInspector inspect(sandbox.makeClient());
  for (auto iteration : state) {
    sandbox.writeQueue(1100, kRecordBytes);
    const auto start = Clock::now();
    inspect.truncateQueueOnDisk();
    state.SetIterationTime(secondsSince(start));
    if (std::filesystem::file_size(sandbox.queueFile()) != 943000) state.SkipWithError("the truncation did not leave 943000 bytes");
  }
}
BENCHMARK(truncation)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(100);

}  // namespace
