// SPDX-License-Identifier: MIT
// Corvane::System::IException: the interface of every exception that host
// components throw across component boundaries.
//
// Thread safety: implementations are immutable once thrown.
#ifndef CORVANE_SYSTEM_IEXCEPTION_H
#define CORVANE_SYSTEM_IEXCEPTION_H

#include "Corvane/System/Export.h"

namespace Corvane {
namespace System {

class CORVANE_SYSTEM_API IException {
 public:
  virtual ~IException();

 protected:
  IException() = default;
  IException(const IException&) = default;
  IException& operator=(const IException&) = default;
};

}  // namespace System
}  // namespace Corvane

#endif  // CORVANE_SYSTEM_IEXCEPTION_H
