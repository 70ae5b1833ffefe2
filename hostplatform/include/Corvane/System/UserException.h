// SPDX-License-Identifier: MIT
// Corvane::System::UserException: the concrete IUserException made from two
// texts, for host components (and tests) to throw.
//
// Thread safety: immutable after construction.
#ifndef CORVANE_SYSTEM_USEREXCEPTION_H
#define CORVANE_SYSTEM_USEREXCEPTION_H

#include <string>

#include "Corvane/System/IUserException.h"

namespace Corvane {
namespace System {

class CORVANE_SYSTEM_API UserException : public IUserException {
 public:
  UserException(std::string source, std::string message);
  UserException(const UserException& other);
  UserException& operator=(const UserException& other);
  ~UserException() override;

  const std::string& getSource() const override;
  const std::string& getMessage() const override;

 private:
  std::string source_;
  std::string message_;
};

}  // namespace System
}  // namespace Corvane

#endif  // CORVANE_SYSTEM_USEREXCEPTION_H
