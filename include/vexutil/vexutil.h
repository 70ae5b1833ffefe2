// SPDX-License-Identifier: MIT
/// \file
/// Everything public of libvexutil in one include.
///
/// ### Overview
/// * Events and subscriptions (vexutil::eventmgr): EventMgr, BaseEvent, the
///   Event<Class, Base> helper, Subscription and the subscribe functions,
///   ClientProxy, ClientAdapter, ProxyMailer, ToDoAdapter,
///   NotifyDeadlockException, and EventChecks.h, which says what is checked
///   about an event class and where.
/// * Diagnostics (Diagnostics.h): the failure observer, slow-subscriber
///   thresholds, live counts, and subscribers' readable names.
/// * The context registry (vexutil::contextmgr).
/// * The input request event (vexutil::inputreqevt).
/// * The library's version strings.
///
/// ### Thread safety
/// See each header.
#ifndef VEXUTIL_VEXUTIL_H
#define VEXUTIL_VEXUTIL_H

#include "vexutil/Export.h"
#include "vexutil/contextmgr/ContextRegistry.h"
#include "vexutil/eventmgr/BaseEvent.h"
#include "vexutil/eventmgr/ClientAdapter.h"
#include "vexutil/eventmgr/ClientProxy.h"
#include "vexutil/eventmgr/Diagnostics.h"
#include "vexutil/eventmgr/Event.h"
#include "vexutil/eventmgr/EventChecks.h"
#include "vexutil/eventmgr/EventMgr.h"
#include "vexutil/eventmgr/NotifyDeadlockException.h"
#include "vexutil/eventmgr/ProxyMailer.h"
#include "vexutil/eventmgr/SubscriberClassName.h"
#include "vexutil/eventmgr/Subscription.h"
#include "vexutil/eventmgr/ToDoAdapter.h"
#include "vexutil/inputreqevt/InputRequestEvent.h"
#include "vexutil/version/Version.h"

#endif  // VEXUTIL_VEXUTIL_H
