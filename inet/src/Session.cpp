#include "Session.h"

#include "RequestHandle.h"

#include <climits>

namespace QOR::inet {

namespace {
constexpr std::size_t maxSpareEasies = 8;

void InitialiseCurl() {
  static std::once_flag once;
  std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}
} // namespace

Session::Session(Settings settings) : settings(std::move(settings)) {}

std::shared_ptr<Session> Session::Start(Settings settings) {
  InitialiseCurl();
  std::shared_ptr<Session> session(new Session(std::move(settings)));
  session->multi = curl_multi_init();
  if (!session->multi) return nullptr;
  // The thread owns the session too, so the session outlives every command the loop runs.
  try {
    session->loop = std::thread([session] { session->Run(); });
  } catch (const std::system_error&) {
    return nullptr;
  }
  session->loopId = session->loop.get_id();
  return session;
}

Session::~Session() {
  // The last owner is the loop thread itself when nothing joined it: it ends right after this.
  if (loop.joinable()) loop.detach();
  if (multi) curl_multi_cleanup(multi);
}

void Session::Post(std::function<void()> command) {
  {
    std::lock_guard<std::mutex> guard(queueLock);
    if (stopped) return;
    commands.push_back(std::move(command));
  }
  curl_multi_wakeup(multi);
}

void Session::Stop() {
  {
    std::lock_guard<std::mutex> guard(queueLock);
    stopRequested = true;
  }
  curl_multi_wakeup(multi);
  if (OnLoopThread()) return;
  std::lock_guard<std::mutex> guard(joinLock);
  if (loop.joinable()) loop.join();
}

void Session::Run() {
  std::vector<std::function<void()>> batch;
  for (;;) {
    {
      std::lock_guard<std::mutex> guard(queueLock);
      batch.swap(commands);
      if (batch.empty() && stopRequested) {
        stopped = true;
        break;
      }
    }
    for (auto& command : batch) command();
    batch.clear();

    int running = 0;
    curl_multi_perform(multi, &running);
    DeliverFinished();
    while (!afterPerform.empty()) {
      auto tasks = std::move(afterPerform);
      afterPerform.clear();
      for (auto& task : tasks) task();
    }
    {
      std::lock_guard<std::mutex> guard(queueLock);
      if (!commands.empty() || stopRequested) continue;
    }
    // No time-out of our own: libcurl shortens the wait to its next timer, a Post wakes it.
    curl_multi_poll(multi, nullptr, 0, INT_MAX, nullptr);
  }
  Shutdown();
}

void Session::DeliverFinished() {
  int left = 0;
  while (CURLMsg* message = curl_multi_info_read(multi, &left)) {
    if (message->msg != CURLMSG_DONE) continue;
    auto found = attached.find(message->easy_handle);
    if (found == attached.end()) continue;
    std::shared_ptr<RequestHandle> request = found->second;
    request->TransferDone(message->data.result);
  }
}

void Session::Shutdown() {
  std::vector<std::shared_ptr<RequestHandle>> remaining;
  for (auto& entry : attached) remaining.push_back(entry.second);
  for (auto& request : remaining) request->DropTransfer(); // each detaches itself
  attached.clear();
  for (CURL* easy : spareEasies) curl_easy_cleanup(easy);
  spareEasies.clear();
}

bool Session::Attach(CURL* easy, std::shared_ptr<RequestHandle> request) {
  if (curl_multi_add_handle(multi, easy) != CURLM_OK) return false;
  attached.emplace(easy, std::move(request));
  return true;
}

void Session::Detach(CURL* easy) {
  auto found = attached.find(easy);
  if (found == attached.end()) return;
  curl_multi_remove_handle(multi, easy);
  // The request may hold the last other reference: let it go only after the map is consistent.
  std::shared_ptr<RequestHandle> keep = std::move(found->second);
  attached.erase(found);
}

CURL* Session::TakeEasy() {
  if (spareEasies.empty()) return curl_easy_init();
  CURL* easy = spareEasies.back();
  spareEasies.pop_back();
  return easy;
}

void Session::GiveBackEasy(CURL* easy) {
  if (!easy) return;
  if (spareEasies.size() >= maxSpareEasies || !OnLoopThread()) {
    curl_easy_cleanup(easy);
    return;
  }
  curl_easy_reset(easy);
  spareEasies.push_back(easy);
}

} // namespace QOR::inet
