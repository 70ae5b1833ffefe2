#include "TestSupport.h"

#include <utility>

#include "DefaultEventMgr.h"
#include "EventDispatcher.h"
#include "Instance.h"

namespace vexutil {
namespace testing_support {

using eventmgr::BaseEvent;

// Notifies under the lock: a waiter may destroy the object as soon as it
// sees the change, so nothing may touch it after the lock is released.
void Gate::open() {
  std::lock_guard<std::mutex> lock(mutex_);
  open_ = true;
  opened_.notify_all();
}

bool Gate::isOpen() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return open_;
}

bool Gate::wait() const {
  std::unique_lock<std::mutex> lock(mutex_);
  return opened_.wait_for(lock, kPatience, [this] { return open_; });
}

void Counter::add(std::size_t amount) {
  std::lock_guard<std::mutex> lock(mutex_);
  value_ += amount;
  changed_.notify_all();
}

std::size_t Counter::value() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return value_;
}

bool Counter::waitFor(std::size_t target) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, kPatience, [this, target] { return value_ >= target; });
}

namespace {
const std::string kTestEventName("TestEvent");
const std::string kDerivedTestEventName("DerivedTestEvent");
}  // namespace

TestEvent::TestEvent(int payload) : BaseEvent(std::vector<std::string>{kTestEventName}), payload_(payload) {}
TestEvent::TestEvent(std::vector<std::string> derivedNames, int payload)
    : BaseEvent([&derivedNames] {
        derivedNames.push_back(kTestEventName);
        return std::move(derivedNames);
      }()),
      payload_(payload) {}
TestEvent::TestEvent(const TestEvent& other) : BaseEvent(other), payload_(other.payload_) {}
TestEvent* TestEvent::clone() const { return new TestEvent(*this); }
const std::string& TestEvent::typeName() { return kTestEventName; }

DerivedTestEvent::DerivedTestEvent(int payload) : TestEvent(std::vector<std::string>{kDerivedTestEventName}, payload) {}
DerivedTestEvent::DerivedTestEvent(const DerivedTestEvent& other) = default;
DerivedTestEvent* DerivedTestEvent::clone() const { return new DerivedTestEvent(*this); }
const std::string& DerivedTestEvent::typeName() { return kDerivedTestEventName; }

void Recorder::onBase(const BaseEvent& event) {
  const auto* test = dynamic_cast<const TestEvent*>(&event);
  record(event, test != nullptr ? test->payload() : -1);
}

void Recorder::onTest(const TestEvent& event) { record(event, event.payload()); }

void Recorder::record(const BaseEvent& event, int payload) {
  std::function<void(const BaseEvent&)> action;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    action = action_;
  }
  if (action) {
    action(event);
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    deliveries_.push_back(Delivery{event.getTypes().front(), payload, Corvane::System::ThreadId::self(), &event});
  }
  received_.add();
}

std::vector<Delivery> Recorder::deliveries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return deliveries_;
}

std::vector<int> Recorder::payloads() const {
  std::vector<int> result;
  for (const Delivery& delivery : deliveries()) {
    result.push_back(delivery.payload);
  }
  return result;
}

void Recorder::setAction(std::function<void(const BaseEvent&)> action) {
  std::lock_guard<std::mutex> lock(mutex_);
  action_ = std::move(action);
}

eventmgr::DefaultEventMgr& defaultManager() {
  return dynamic_cast<eventmgr::DefaultEventMgr&>(*eventmgr::EventMgr::instance());
}

void shutDownManager() { eventmgr::detail::releaseOwner(); }

void restartManager() { eventmgr::detail::rearmInstanceForTesting(); }

void drainQueue() { eventmgr::EventMgr::instance()->publish(BaseEvent(), true); }

Corvane::System::ThreadId dispatcherThreadId() { return defaultManager().getDispatcher()->getThreadId(); }

}  // namespace testing_support
}  // namespace vexutil
