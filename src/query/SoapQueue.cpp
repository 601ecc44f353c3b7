#include <qorxmlu/query/SoapQueue.h>

#include <qorxmlu/foundation/CritSection.h>
#include <qorxmlu/foundation/Utility.h>
#include <qorxmlu/http/HttpClient.h>
#include <qorxmlu/xml/XMLTag.h>

#include "foundation/Spin.h"

#include <chrono>

namespace QOR {

struct QueueEntry {
  SafeItem<SimpleSoap> soap;
  // Made and destroyed by the blocked caller; null sends the outcome to SoapCallback.
  Event* doneEvent;
  ErrorInfo* result;
};

namespace {

// Guards every queue's entries, its semaphore counts and its running flag. The semaphore count
// changes only together with the entries, so the two always agree.
CritSection queueSection("SoapQueue :: queueSection");

constexpr std::size_t queueCapacityIncrease = 5;
// A caller that has just had its outcome often queues its next query at once. The worker watches
// for it this long, yielding its core, before it sleeps: a wake from sleep costs more than the
// whole hand-off.
constexpr std::chrono::microseconds nextQueryWatch(100);

const char16_t* const semaphoreFailed = u"Couldn't create semaphore for Soap queue";
const char16_t* const waitFailed = u"General error waiting on SoapQueue event";
const char16_t* const stoppedBeforeRun = u"SoapQueue stopped before the query was run";
const char16_t* const badlyFormed = u"Badly formed xml";
const char16_t* const missingStatus = u"Missing error status tag in xml";
const char16_t* const soapError = u"Soap error: ";

// The outcome of a reply that parsed, read from the direct nested tags of its top tag.
ErrorInfo* JudgeReply(const SimpleSoap& soap) {
  XMLTag* top = soap.TopTag();
  if (!top) return MakeError(badlyFormed);
  ErrorInfo* outcome = nullptr;
  if (XMLTag* success = top->FindNestedTag(u"Success")) {
    int status = 0;
    success->GetValue() >> status;
    if (status > 0) outcome = MakeError(soapError, status);
  } else {
    outcome = MakeError(missingStatus);
  }
  if (XMLTag* prefix = top->FindNestedTag(u"ErrorPrefix")) outcome = SafeConcat(MakeError(prefix->GetValue()), outcome);
  return outcome;
}

} // namespace

SoapQueue::QueueThread::QueueThread(SoapQueue* queue, Event* stopEvent)
    : Thread("SoapQueue :: QueueThread", stopEvent, true), owner(queue) {}

SoapQueue::QueueThread::~QueueThread() { BlockingStopRunning(); }

ErrorInfo* SoapQueue::QueueThread::ThreadBody(bool& finished) {
  finished = false;
  while (!finished) finished = owner->ProcessNextSoap();
  return nullptr;
}

SoapQueue::SoapQueue() : semaphore(nullptr, 0), stopEvent(true), queueThread(this, &stopEvent) {
  queue.SetCapacityIncrease(queueCapacityIncrease);
}

SoapQueue::~SoapQueue() {
  if (queueThread.Running()) queueThread.BlockingStopRunning();
  DropQueuedEntries();
}

ErrorInfo* SoapQueue::StartRunning(HttpClient* httpClient) {
  client = httpClient;
  if (!semaphore.Created()) return MakeError(semaphoreFailed);
  return queueThread.StartRunning();
}

ErrorInfo* SoapQueue::StopRunning() {
  queueThread.BlockingStopRunning();
  DropQueuedEntries();
  return nullptr;
}

bool SoapQueue::Running() const { return queueThread.Running(); }

ErrorInfo* SoapQueue::AddBlockingSoap(SafeItem<SimpleSoap> soap) {
  Event done(true);
  auto* entry = new QueueEntry{soap, &done, nullptr};
  {
    CritSectionLock hold(queueSection);
    queue.Add(entry);
    semaphore.Set();
  }
  SVArray<Event*, Event*> waitList;
  waitList.SetCapacityIncrease(1);
  waitList.Add(&done);
  // Only the worker's Set (or a stop's) ends this wait.
  WaitOnEvents(waitList, -1);
  ErrorInfo* result = entry->result;
  delete entry;
  return result;
}

void SoapQueue::CancelCallbackRequest() {
  CritSectionLock hold(queueSection);
  if (!blockingRequestRunning) return;
  blockingRequestRunning = false;
  delete client->CancelRequest();
}

void SoapQueue::SoapCallback(SafeItem<SimpleSoap>&, ErrorInfo* error) { delete error; }

bool SoapQueue::ProcessNextSoap() {
  SVArray<Event*, Event*> events;
  events.SetCapacityIncrease(2);
  events.Add(&semaphore);
  events.Add(&stopEvent);
  detail::SpinUntil([this] { return semaphore.IsSet() || stopEvent.IsSet(); }, nextQueryWatch);
  int signalled = WaitOnEvents(events, -1);
  if (signalled == 1) return true;
  if (signalled != 0) {
    ErrorInfo* error = MakeError(waitFailed);
    LogAndResetError(error);
    return false;
  }
  QueueEntry* entry = TakeNextEntry();
  if (!entry) return stopEvent.IsSet();

  ErrorInfo* outcome = entry->soap.Get()->RunQuery(client);
  if (entry->doneEvent) {
    CritSectionLock hold(queueSection);
    blockingRequestRunning = false;
  }
  if (!outcome) outcome = JudgeReply(*entry->soap.Get());
  Deliver(entry, outcome);
  return false;
}

QueueEntry* SoapQueue::TakeNextEntry() {
  CritSectionLock hold(queueSection);
  // A stop goes before the queries still waiting: the semaphore comes first in the wait list,
  // so without this check a busy queue would never see its stop event.
  if (stopEvent.IsSet()) return nullptr;
  if (queue.Size() == 0) {
    semaphore.ResetAll();
    return nullptr;
  }
  QueueEntry* entry = queue[0];
  queue.Remove(0);
  semaphore.Reset();
  if (entry->doneEvent) blockingRequestRunning = true;
  return entry;
}

void SoapQueue::Deliver(QueueEntry* entry, ErrorInfo* outcome) {
  if (entry->doneEvent) {
    entry->result = outcome;
    // From here the entry is the caller's.
    entry->doneEvent->Set();
    return;
  }
  SoapCallback(entry->soap, outcome);
  delete entry;
}

void SoapQueue::DropQueuedEntries() {
  SVArray<QueueEntry*> dropped;
  {
    CritSectionLock hold(queueSection);
    dropped = queue;
    queue.Truncate(0);
    semaphore.ResetAll();
  }
  for (std::size_t i = 0; i < dropped.Size(); ++i) Deliver(dropped[i], MakeError(stoppedBeforeRun));
}

} // namespace QOR
