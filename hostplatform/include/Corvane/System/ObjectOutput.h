// SPDX-License-Identifier: MIT
// Corvane::System::ObjectOutput: the sink that a Throwable writes itself to.
//
// Overview
//   The host serialises exceptions for its error reports by handing an
//   ObjectOutput to the four writer operations of Throwable. This stand-in
//   writes every item as one line of text to a std::ostream.
//
// Thread safety
//   One ObjectOutput must not be used by two threads at once.
#ifndef CORVANE_SYSTEM_OBJECTOUTPUT_H
#define CORVANE_SYSTEM_OBJECTOUTPUT_H

#include <iosfwd>
#include <string>

#include "Corvane/System/Export.h"

namespace Corvane {
namespace System {

class CORVANE_SYSTEM_API ObjectOutput {
 public:
  // Writes to `stream`, which must outlive this object.
  explicit ObjectOutput(std::ostream& stream);
  ObjectOutput(const ObjectOutput&) = delete;
  ObjectOutput& operator=(const ObjectOutput&) = delete;

  // Writes `key`, "=", `value` and a line end.
  ObjectOutput& writeField(const std::string& key, const std::string& value);

 private:
  std::ostream& stream_;
};

}  // namespace System
}  // namespace Corvane

#endif  // CORVANE_SYSTEM_OBJECTOUTPUT_H
