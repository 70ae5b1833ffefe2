// SPDX-License-Identifier: MIT
// Stand-in implementation of the host system library Corvane::System.
#include <atomic>
#include <ostream>
#include <utility>

#include "Corvane/System/CriticalSection.h"
#include "Corvane/System/IException.h"
#include "Corvane/System/IUserException.h"
#include "Corvane/System/InternalException.h"
#include "Corvane/System/ObjectOutput.h"
#include "Corvane/System/ThreadId.h"
#include "Corvane/System/Throwable.h"
#include "Corvane/System/UserException.h"

namespace Corvane {
namespace System {

// --- ThreadId ---------------------------------------------------------------

namespace {
// Identities are handed out in order and never reused, unlike pthread_t or
// kernel thread ids, so a restarted worker is always told apart from the one
// it replaces.
std::atomic<std::uint64_t> nextThreadIdentity{1};
}  // namespace

ThreadId ThreadId::self() noexcept {
  thread_local const std::uint64_t identity = nextThreadIdentity.fetch_add(1, std::memory_order_relaxed);
  return ThreadId(identity);
}

// --- CriticalSection --------------------------------------------------------

CriticalSection::CriticalSection() = default;
CriticalSection::~CriticalSection() = default;

void CriticalSection::acquire() {
  mutex_.lock();
  ++depth_;
  owner_.store(ThreadId::self().value(), std::memory_order_relaxed);
}

void CriticalSection::release() {
  // Only the owner may release; anything else would unlock a mutex that the
  // calling thread does not hold, which is undefined behaviour.
  if (owner_.load(std::memory_order_relaxed) != ThreadId::self().value()) {
    return;
  }
  if (--depth_ == 0) {
    owner_.store(0, std::memory_order_relaxed);
  }
  mutex_.unlock();
}

// --- ObjectOutput -----------------------------------------------------------

ObjectOutput::ObjectOutput(std::ostream& stream) : stream_(stream) {}

ObjectOutput& ObjectOutput::writeField(const std::string& key, const std::string& value) {
  stream_ << key << '=' << value << '\n';
  return *this;
}

// --- Throwable and InternalException ------------------------------------------

Throwable::Throwable() = default;
Throwable::Throwable(std::string message) : message_(std::move(message)) {}
Throwable::Throwable(const Throwable& other) = default;
Throwable& Throwable::operator=(const Throwable& other) = default;
Throwable::~Throwable() = default;

void Throwable::writeExternal(ObjectOutput& out) const {
  out.writeField("class", "Corvane::System::Throwable");
  out.writeField("message", message_);
}

void Throwable::writeRecurseChain(ObjectOutput& out) const { out.writeField("chain", message_); }

void Throwable::writeLocalizedMsg(ObjectOutput& out) const { out.writeField("localized", message_); }

void Throwable::writeStackTrace(ObjectOutput& out) const { out.writeField("stack", "(not recorded)"); }

InternalException::InternalException() = default;
InternalException::InternalException(std::string message) : Throwable(std::move(message)) {}
InternalException::InternalException(const InternalException& other) = default;
InternalException& InternalException::operator=(const InternalException& other) = default;
InternalException::~InternalException() = default;

// --- IException, IUserException and UserException ---------------------------------

IException::~IException() = default;
IUserException::~IUserException() = default;

UserException::UserException(std::string source, std::string message)
    : source_(std::move(source)), message_(std::move(message)) {}
UserException::UserException(const UserException& other) = default;
UserException& UserException::operator=(const UserException& other) = default;
UserException::~UserException() = default;

const std::string& UserException::getSource() const { return source_; }
const std::string& UserException::getMessage() const { return message_; }

}  // namespace System
}  // namespace Corvane
