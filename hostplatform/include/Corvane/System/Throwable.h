// SPDX-License-Identifier: MIT
// Corvane::System::Throwable: the root of the host system library's exceptions.
//
// Overview
//   Throwable does not derive from std::exception: host code catches it, or
//   one of its interfaces, by name. It carries a message text and can write
//   itself to an ObjectOutput through four writer operations, which stand in
//   the virtual table in this order after the destructor: writeExternal,
//   writeRecurseChain, writeLocalizedMsg, writeStackTrace.
//
// Thread safety
//   A Throwable is immutable after construction; const operations may run on
//   several threads at once, each with its own ObjectOutput.
#ifndef CORVANE_SYSTEM_THROWABLE_H
#define CORVANE_SYSTEM_THROWABLE_H

#include <string>

#include "Corvane/System/Export.h"

namespace Corvane {
namespace System {

class ObjectOutput;

class CORVANE_SYSTEM_API Throwable {
 public:
  Throwable();
  explicit Throwable(std::string message);
  Throwable(const Throwable& other);
  Throwable& operator=(const Throwable& other);
  virtual ~Throwable();

  // Writes the class name and the message.
  virtual void writeExternal(ObjectOutput& out) const;
  // Writes the chain of causes; the stand-in has no causes and writes the
  // exception itself as the only link.
  virtual void writeRecurseChain(ObjectOutput& out) const;
  // Writes the message as the user would read it.
  virtual void writeLocalizedMsg(ObjectOutput& out) const;
  // Writes the stack trace; the stand-in records none and says so.
  virtual void writeStackTrace(ObjectOutput& out) const;

  const std::string& getMessage() const noexcept { return message_; }

 private:
  std::string message_;
};

}  // namespace System
}  // namespace Corvane

#endif  // CORVANE_SYSTEM_THROWABLE_H
