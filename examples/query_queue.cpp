// A host program whose threads share one query queue: each thread asks the service a few
// questions; the queue runs them one at a time on one connection and judges each reply.
// Usage: example_query_queue [host:port]. Try it against `qorxml serve`, which fails a query
// whose "status" field is a number above 0.
#include <qorxmlu/qorxmlu.h>

#include <cstdio>
#include <mutex>
#include <thread>
#include <vector>

using namespace QOR;

namespace {

std::mutex printLock;

void Ask(SoapQueue& queue, int worker) {
  for (int i = 0; i < 3; ++i) {
    SafeItem<SimpleSoap> query(new SimpleSoap("service/echo", worker * 10 + i, "demo"));
    query.Get()->AddParameter("worker", std::to_string(worker));
    // The last question of worker 2 asks the service to report error 7.
    query.Get()->AddParameter("status", worker == 2 && i == 2 ? "7" : "0");
    ErrorPtr outcome(queue.AddBlockingSoap(query));
    std::lock_guard<std::mutex> hold(printLock);
    if (outcome) {
      std::printf("worker %d, query %d: error: %s\n", worker, i, outcome->FullText().ToUtf8().c_str());
    } else {
      std::printf("worker %d, query %d: ok, %zu tags in the reply\n", worker, i,
                  query.Get()->TopTag()->NoOfNestedTags());
    }
  }
}

} // namespace

int main(int argc, char** argv) {
  const char* server = argc > 1 ? argv[1] : "127.0.0.1:8080";
  if (ErrorPtr error{HttpClient::InitialiseHttp()}) {
    std::fprintf(stderr, "%s\n", error->FullText().ToUtf8().c_str());
    return 1;
  }
  int status = 0;
  {
    HttpClient client("query-queue-example/1.0", server, false, 10, 30);
    SoapQueue queue;
    if (ErrorPtr error{queue.StartRunning(&client)}) {
      std::fprintf(stderr, "%s\n", error->FullText().ToUtf8().c_str());
      status = 1;
    } else {
      std::vector<std::thread> workers;
      for (int worker = 0; worker < 3; ++worker) workers.emplace_back(Ask, std::ref(queue), worker);
      for (auto& thread : workers) thread.join();
      ErrorPtr stopped{queue.StopRunning()};
    }
  }
  ErrorPtr unloaded{HttpClient::TerminateHttp()};
  return status;
}
