// SPDX-License-Identifier: MIT
// Corvane::System::InternalException: a Throwable that reports a fault inside
// a library rather than a mistake of the user.
//
// Thread safety: as Throwable.
#ifndef CORVANE_SYSTEM_INTERNALEXCEPTION_H
#define CORVANE_SYSTEM_INTERNALEXCEPTION_H

#include <string>

#include "Corvane/System/Throwable.h"

namespace Corvane {
namespace System {

class CORVANE_SYSTEM_API InternalException : public Throwable {
 public:
  InternalException();
  explicit InternalException(std::string message);
  InternalException(const InternalException& other);
  InternalException& operator=(const InternalException& other);
  ~InternalException() override;
};

}  // namespace System
}  // namespace Corvane

#endif  // CORVANE_SYSTEM_INTERNALEXCEPTION_H
