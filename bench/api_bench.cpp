// Local API benchmarks, in process: a real BatchViewModel behind a real server on 127.0.0.1.
//   BM_StatusWith50Clients: GET /v1/status from 50 concurrent clients, one connection per
//     request (the server closes after each answer); requests per second and latency.
//   BM_SettingsToAllReady: POST /v1/settings, then the time until ten 12-megapixel photos are
//     encoded again to JPEG by the real engine.
//   BM_StatusDuringAnUnauthenticatedFlood: 300 connections without the token, each sending an
//     8 MiB body, while one client asks for the status with the token; the peak growth of
//     the process's resident memory and the status latency. Argument 1 is the server as the
//     application sets it up (token gate, default limits); 0 is the server without them.
//   BM_StatusWith300IdleSockets: 300 connections opened without sending a complete head (as a
//     slow client or a page's scripts would hold them), then GET /v1/status with the token,
//     one after the other; its latency.
// bench/api_wrk.sh measures the first against the real application with wrk.
#include <benchmark/benchmark.h>

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QTemporaryDir>
#include <QThread>
#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <fstream>
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

  explicit Stack(bool guarded = true) {
    qputenv("XDG_CONFIG_HOME", QFile::encodeName(dir.filePath("config")));
    JSONFileStore::setFolderForTesting(dir.filePath("data"));
    token = LocalAPISettings::token().toStdString();
    BatchViewModel::Options options;
    options.restoreSession = false;
    model = std::make_unique<BatchViewModel>(options);
    router = std::make_unique<LocalAPIRouter>(*model);
    server = std::make_unique<LocalAPIServer>(30.0, router->serverRouter());
    if (guarded) {
      server->setGate(LocalAPIRouter::serverGate());  // as LocalAPIController does
    } else {
      server->setLimits({1 << 20, SIZE_MAX});
    }
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
  std::string request(const std::string& method, const std::string& target,
                      const std::string& body = {}) const {
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
    threads.reserve(size_t(clients));
    for (int c = 0; c < clients; ++c) {
      threads.emplace_back([&, c] {
        for (int i = 0; i < perClient; ++i) {
          auto t0 = Clock::now();
          auto response = testing::httpExchange(stack.port, request);
          perThread[size_t(c)].push_back(
              std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
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

// Resident memory of this process in kB (VmRSS).
long residentKilobytes() {
  std::ifstream status("/proc/self/status");
  std::string line;
  while (std::getline(status, line))
    if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
  return 0;
}

void BM_StatusDuringAnUnauthenticatedFlood(benchmark::State& state) {
  Stack stack(state.range(0) != 0);
  const std::string status = stack.request("GET", "/v1/status");
  const std::string head = "POST /v1/import HTTP/1.1\r\nContent-Length: 8388608\r\n\r\n";
  const std::string body(8388608, 'x');
  constexpr int senders = 6, perSender = 50;
  std::vector<double> latencies, quiet;
  long peakGrowth = 0;
  for (auto _ : state) {
    // The same request with no flood, for comparison on this machine at this moment.
    for (int i = 0; i < 20; ++i) {
      std::atomic<bool> answered{false};
      auto t0 = Clock::now();
      std::thread client([&] {
        testing::httpExchange(stack.port, status);
        answered = true;
      });
      spinUntil([&] { return answered.load(); });
      quiet.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
      client.join();
    }
    const long baseline = residentKilobytes();
    std::atomic<long> peak{baseline};
    std::atomic<int> floodDone{0};
    std::atomic<bool> stop{false};
    std::thread sampler([&] {
      while (!stop) {
        peak = std::max(peak.load(), residentKilobytes());
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      }
    });
    std::vector<std::thread> flood;
    flood.reserve(size_t(senders));
    for (int t = 0; t < senders; ++t) {
      flood.emplace_back([&] {
        // All open at once, as a page's scripts would hold them.
        std::vector<std::unique_ptr<testing::RawConnection>> connections;
        for (int i = 0; i < perSender; ++i) {
          connections.push_back(std::make_unique<testing::RawConnection>(stack.port));
          connections.back()->send(head);
        }
        // Bodies sent side by side, in slices, so that all of them are in flight at once.
        constexpr size_t slice = size_t(256) * 1024;
        std::vector<bool> open(connections.size(), true);
        for (size_t at = 0; at < body.size(); at += slice)
          for (size_t i = 0; i < connections.size(); ++i)
            if (open[i]) open[i] = connections[i]->send(std::string_view(body).substr(at, slice));
        for (auto& connection : connections) connection->readResponse(std::chrono::seconds(30));
        ++floodDone;
      });
    }
    std::atomic<bool> probed{false};
    std::thread prober([&] {
      while (floodDone.load() < senders) {
        auto t0 = Clock::now();
        testing::httpExchange(stack.port, status, std::chrono::seconds(30));
        latencies.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
      }
      probed = true;
    });
    spinUntil([&] { return probed.load(); });  // the status answers need this thread's loop
    prober.join();
    for (auto& thread : flood) thread.join();
    stop = true;
    sampler.join();
    peakGrowth = std::max(peakGrowth, peak.load() - baseline);
  }
  std::sort(latencies.begin(), latencies.end());
  std::sort(quiet.begin(), quiet.end());
  auto percentile = [&](double p) {
    return latencies.empty() ? 0 : latencies[size_t(p * double(latencies.size() - 1))];
  };
  state.counters["peak_growth_MB"] = double(peakGrowth) / 1024.0;
  state.counters["quiet_p50_ms"] = quiet[quiet.size() / 2];
  state.counters["status_p50_ms"] = percentile(0.50);
  state.counters["status_max_ms"] = latencies.empty() ? 0 : latencies.back();
  state.counters["status_requests"] = double(latencies.size());
}
BENCHMARK(BM_StatusDuringAnUnauthenticatedFlood)
    ->Arg(1)
    ->Arg(0)
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

void BM_StatusWith300IdleSockets(benchmark::State& state) {
  Stack stack;
  const std::string status = stack.request("GET", "/v1/status");
  constexpr int idle = 300, probes = 200;
  std::vector<double> latencies;
  int failures = 0;
  for (auto _ : state) {
    std::vector<std::unique_ptr<testing::RawConnection>> connections;
    for (int i = 0; i < idle; ++i) {
      connections.push_back(std::make_unique<testing::RawConnection>(stack.port));
      if (i % 2) connections.back()->send("GET /v1/status HTTP/1.1\r\n");  // half of them trickle a line
    }
    std::atomic<bool> done{false};
    auto start = Clock::now();
    std::thread prober([&] {
      for (int i = 0; i < probes; ++i) {
        auto t0 = Clock::now();
        if (testing::httpExchange(stack.port, status, std::chrono::seconds(40)).status != 200) ++failures;
        latencies.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
      }
      done = true;
    });
    spinUntil([&] { return done.load(); });  // the status answers need this thread's loop
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    prober.join();
  }
  std::sort(latencies.begin(), latencies.end());
  state.counters["status_p50_ms"] = latencies[latencies.size() / 2];
  state.counters["status_max_ms"] = latencies.back();
  state.counters["errors"] = failures;
}
BENCHMARK(BM_StatusWith300IdleSockets)->UseManualTime()->Iterations(1)->Unit(benchmark::kMillisecond);

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
