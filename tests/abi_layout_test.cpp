// SPDX-License-Identifier: MIT
// Host classes override the library's virtual operations by slot, so the
// order of every virtual table is part of the binary interface. Under the
// Itanium C++ ABI a pointer to a virtual member function holds 1 + the byte
// offset of its slot; the two destructor entries fill slots 0 and 1.
#include <cstdint>
#include <cstring>
#include <type_traits>

#include "Corvane/System/InternalException.h"
#include "UnitTest.h"
#include "vexutil/contextmgr/ContextRegistry.h"

namespace {

template <typename MemberFunction>
std::ptrdiff_t slotOf(MemberFunction function) {
  struct Representation {
    std::uintptr_t pointerOrOffset;
    std::ptrdiff_t thisAdjustment;
  };
  static_assert(sizeof(MemberFunction) == sizeof(Representation), "Itanium member function pointer expected");
  Representation representation{};
  std::memcpy(&representation, &function, sizeof representation);
  EXPECT_EQ(representation.pointerOrOffset & 1U, 1U) << "not a virtual function";
  return static_cast<std::ptrdiff_t>((representation.pointerOrOffset - 1) / sizeof(void*));
}

using Client = EventMgr::ClientPtr;
using TypeList = EventMgr::TypeList;
template <typename... Parameters>
using Member = void (EventMgr::*)(Parameters...);

}  // namespace

// Slot order of BaseEvent and InputRequestEvent (clone, writeDescription) and of ClientProxy.
TEST(VirtualTables, EventsAndClients) {
  using vexutil::eventmgr::ClientProxy;
  EXPECT_EQ(slotOf(&BaseEvent::clone), 2);
  EXPECT_EQ(slotOf(&BaseEvent::writeDescription), 3);
  EXPECT_EQ(slotOf(&InputRequestEvent::clone), 2);
  EXPECT_EQ(slotOf(static_cast<std::ostream& (InputRequestEvent::*)(std::ostream&) const>(
                &InputRequestEvent::writeDescription)),
            3);
  EXPECT_EQ(slotOf(&ClientProxy::notify), 2);
  EXPECT_EQ(slotOf(&ClientProxy::getClassId), 3);
  EXPECT_EQ(slotOf(&ClientProxy::getInstanceId), 4);
}

// EventMgr's twelve slots, subscribe/unSubscribe mirrored; the default manager is an EventMgr, then a ToDoAdapter.
TEST(VirtualTables, EventMgr) {
  EXPECT_EQ(slotOf(static_cast<Member<const BaseEvent&, bool>>(&EventMgr::publish)), 2);
  EXPECT_EQ(slotOf(static_cast<Member<const BaseEvent&>>(&EventMgr::publish)), 3);
  EXPECT_EQ(slotOf(&EventMgr::getSubscriptionCount), 4);
  EXPECT_EQ(slotOf(&EventMgr::getPendingEventCount), 5);
  EXPECT_EQ(slotOf(&EventMgr::isDispatchOrMainThread), 6);
  EXPECT_EQ(slotOf(static_cast<Member<const std::string&, const Client&>>(&EventMgr::subscribe)), 7);
  EXPECT_EQ(slotOf(static_cast<Member<const TypeList&, const Client&>>(&EventMgr::subscribe)), 8);
  EXPECT_EQ(slotOf(static_cast<Member<const TypeList&, const TypeList&, const Client&>>(&EventMgr::subscribe)), 9);
  EXPECT_EQ(slotOf(static_cast<Member<const std::string&, const Client&>>(&EventMgr::unSubscribe)), 10);
  EXPECT_EQ(slotOf(static_cast<Member<const TypeList&, const Client&>>(&EventMgr::unSubscribe)), 11);
  EXPECT_EQ(slotOf(static_cast<Member<const TypeList&, const TypeList&, const Client&>>(&EventMgr::unSubscribe)), 12);
  DefaultEventMgr& manager = defaultManager();  // An EventMgr first and a ToDoAdapter second.
  const auto* whole = reinterpret_cast<const char*>(&manager);
  EXPECT_EQ(reinterpret_cast<const char*>(static_cast<EventMgr*>(&manager)), whole);
  EXPECT_GT(reinterpret_cast<const char*>(static_cast<ToDoAdapter*>(&manager)), whole);
}

// Slot order of Throwable's four writers (NotifyDeadlockException keeps it) and of the context interfaces.
TEST(VirtualTables, HostInterfaces) {
  using Corvane::System::Throwable;
  EXPECT_EQ(slotOf(&Throwable::writeExternal), 2);
  EXPECT_EQ(slotOf(&Throwable::writeRecurseChain), 3);
  EXPECT_EQ(slotOf(&Throwable::writeLocalizedMsg), 4);
  EXPECT_EQ(slotOf(&Throwable::writeStackTrace), 5);
  EXPECT_EQ(slotOf(&NotifyDeadlockException::writeExternal), 2);
  EXPECT_EQ(slotOf(&NotifyDeadlockException::writeStackTrace), 5);
  EXPECT_TRUE((std::is_base_of<Corvane::System::InternalException, NotifyDeadlockException>::value));
  EXPECT_FALSE((std::is_base_of<std::exception, Throwable>::value));
  using vexutil::contextmgr::ContextBase;
  using vexutil::contextmgr::ContextFactoryBase;
  EXPECT_EQ(slotOf(&ContextFactoryBase::create), 2);
  EXPECT_EQ(slotOf(&ContextFactoryBase::destroy), 3);
  EXPECT_EQ(slotOf(&ContextFactoryBase::clone), 4);
  EXPECT_EQ(slotOf(&ContextBase::restore), 2);
  EXPECT_EQ(slotOf(&ContextBase::save), 3);
}
