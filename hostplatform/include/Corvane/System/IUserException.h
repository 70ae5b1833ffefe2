// SPDX-License-Identifier: MIT
// Corvane::System::IUserException: an exception meant to be shown to the user.
//
// Overview
//   It carries two texts: the source (the component or operation that failed)
//   and the message (what went wrong). Error reports print them as
//   "source:message".
//
// Thread safety: implementations are immutable once thrown.
#ifndef CORVANE_SYSTEM_IUSEREXCEPTION_H
#define CORVANE_SYSTEM_IUSEREXCEPTION_H

#include <string>

#include "Corvane/System/IException.h"

namespace Corvane {
namespace System {

class CORVANE_SYSTEM_API IUserException : public IException {
 public:
  ~IUserException() override;

  // The first text: the component or operation that failed.
  virtual const std::string& getSource() const = 0;
  // The second text: what went wrong, in words for the user.
  virtual const std::string& getMessage() const = 0;

 protected:
  IUserException() = default;
  IUserException(const IUserException&) = default;
  IUserException& operator=(const IUserException&) = default;
};

}  // namespace System
}  // namespace Corvane

#endif  // CORVANE_SYSTEM_IUSEREXCEPTION_H
