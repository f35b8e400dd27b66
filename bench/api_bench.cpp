// Local API benchmarks, in process: a real BatchViewModel behind a real server on 127.0.0.1.
//   BM_StatusWith50Clients: GET /v1/status from 50 concurrent clients, one connection per
//     request (the server closes after each answer); requests per second and latency.
//   BM_SettingsToAllReady: POST /v1/settings, then the time until ten 12-megapixel photos are
//     encoded again to JPEG by the real engine.
// bench/api_wrk.sh measures the first against the real application with wrk.
#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QSettings>
#include <QTemporaryDir>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "api/LocalAPIRouter.h"
#include "api/LocalAPIServer.h"
#include "api/LocalAPISettings.h"
#include "batch/BatchViewModel.h"
#include "engine/codecs/Writers.h"
#include "records/JSONFileStore.h"
#include "tests/support/RawHTTPClient.h"
#include "tests/support/TestImages.h"

namespace quillane {
namespace {

using Clock = std::chrono::steady_clock;

template <class Predicate>
void spinUntil(Predicate done) {
  while (!done()) {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    QThread::usleep(200);
  }
}

// The application's objects in miniature, in private folders.
struct Stack {
  QTemporaryDir dir;
  std::unique_ptr<BatchViewModel> model;
  std::unique_ptr<LocalAPIRouter> router;
  std::unique_ptr<LocalAPIServer> server;
  std::string token;
  std::atomic<int> port{0};

  Stack() {
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir.filePath("config"));
    JSONFileStore::setFolderForTesting(dir.filePath("data"));
    token = LocalAPISettings::token().toStdString();
    BatchViewModel::Options options;
    options.restoreSession = false;
    model = std::make_unique<BatchViewModel>(options);
    router = std::make_unique<LocalAPIRouter>(*model);
    server = std::make_unique<LocalAPIServer>(30.0, router->serverRouter());
    server->setOnStateChange([this](const LocalAPIListenerState& state) { port = state.port; });
    server->start(0);
    spinUntil([&] { return port.load() != 0; });
  }
  ~Stack() {
    server.reset();
    router.reset();
    model.reset();
    JSONFileStore::setFolderForTesting(QString());
  }
  std::string request(const std::string& method, const std::string& target, const std::string& body = {}) const {
    return testing::buildRequest(method, target, token, body);
  }
};

void BM_StatusWith50Clients(benchmark::State& state) {
  Stack stack;
  const std::string request = stack.request("GET", "/v1/status");
  constexpr int clients = 50, perClient = 200;
  std::vector<double> latencies;
  int failures = 0;
  for (auto _ : state) {
    std::vector<std::vector<double>> perThread(clients);
    std::atomic<int> done{0}, failed{0};
    auto start = Clock::now();
    std::vector<std::thread> threads;
    for (int c = 0; c < clients; ++c) {
      threads.emplace_back([&, c] {
        for (int i = 0; i < perClient; ++i) {
          auto t0 = Clock::now();
          auto response = testing::httpExchange(stack.port, request);
          perThread[size_t(c)].push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
          if (response.status != 200) ++failed;
        }
        ++done;
      });
    }
    spinUntil([&] { return done.load() == clients; });
    double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (auto& thread : threads) thread.join();
    state.SetIterationTime(seconds);
    for (auto& list : perThread) latencies.insert(latencies.end(), list.begin(), list.end());
    failures += failed;
  }
  std::sort(latencies.begin(), latencies.end());
  auto percentile = [&](double p) { return latencies[size_t(p * double(latencies.size() - 1))]; };
  state.SetItemsProcessed(state.iterations() * clients * perClient);
  state.counters["p50_ms"] = percentile(0.50);
  state.counters["p99_ms"] = percentile(0.99);
  state.counters["errors"] = failures;
}
BENCHMARK(BM_StatusWith50Clients)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

void BM_SettingsToAllReady(benchmark::State& state) {
  Stack stack;
  QList<QUrl> urls;
  for (uint32_t seed = 1; seed <= 10; ++seed) {
    auto bytes = codecs::writeJpeg(testing::makeImage(4000, 3000, testing::Pattern::photo, seed),
                                   codecs::jpegSettings(0.9), std::nullopt);
    QString path = stack.dir.filePath(QString("photo-%1.jpg").arg(seed));
    testing::writeBytes(path.toStdString(), bytes);
    urls.push_back(QUrl::fromLocalFile(path));
  }
  auto settled = [&] {
    if (stack.model->isEncoding() || stack.model->hasPendingRecompute()) return false;
    return std::all_of(stack.model->images().begin(), stack.model->images().end(),
                       [](const auto& image) { return image->encodeState().isReady(); });
  };
  bool imported = false;
  stack.model->importFiles(urls).then(stack.model.get(), [&] { imported = true; });
  spinUntil([&] { return imported && settled(); });

  int round = 0;
  for (auto _ : state) {
    std::string body = R"({"format":"jpeg","quality":)" + std::to_string(70 + (round++ % 2) * 2) + "}";
    std::string request = stack.request("POST", "/v1/settings", body);
    auto start = Clock::now();
    std::atomic<bool> answered{false};
    std::thread client([&] {
      testing::httpExchange(stack.port, request);
      answered = true;
    });
    spinUntil([&] { return answered.load() && settled(); });
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    client.join();
  }
  state.counters["images"] = double(stack.model->images().size());
}
BENCHMARK(BM_SettingsToAllReady)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace
}  // namespace quillane

int main(int argc, char** argv) {
  QCoreApplication app(argc, argv);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
