// SPDX-License-Identifier: MIT
/// \file
/// ContextRegistry: the process-wide list of context factories.
///
/// ### Overview
/// Host components register factories (ContextFactoryBase). A caller can then,
/// in one call each, make a full set of per-context objects (one ContextBase
/// from each factory), save or restore all of them, copy a set into a new set,
/// and hand a set back to the factories. A set is a plain
/// std::vector<ContextBase*> that the caller keeps; entry i belongs to factory
/// i in registration order. The registry owns neither the factories nor the
/// contexts.
///
/// Register every factory before making the first set: a set made earlier has
/// fewer entries than there are factories. The operations that pair entries
/// with factories (destroy, clone) then stop at the shorter of the two, so a
/// short set is handled without reading past its end.
///
/// ### Thread safety
/// Every operation may be called from any thread; one re-entrant
/// Corvane::System::CriticalSection serialises them and is held while the
/// registry calls factories and contexts, which may call back into the
/// registry on the same thread. An exception from a factory or context passes
/// out unchanged with the lock released, leaving the work done so far in
/// place.
#ifndef VEXUTIL_CONTEXTMGR_CONTEXTREGISTRY_H
#define VEXUTIL_CONTEXTMGR_CONTEXTREGISTRY_H

#include <cstddef>
#include <vector>

#include "Corvane/System/CriticalSection.h"
#include "vexutil/Export.h"

namespace vexutil {
namespace contextmgr {

/// One per-context object; the host derives from it. Note the slot order:
/// restore comes before save.
///
/// \par Thread
/// The registry calls save() and restore() under its lock, on the thread that
/// called the registry; a context is never called by two threads at once
/// through the registry.
class VEXUTIL_API ContextBase {
 public:
  /// Any thread; contexts are destroyed by their factory's destroy().
  virtual ~ContextBase();
  /// Makes this context's state the current one.
  /// \post An exception passes out of ContextRegistry::restore() unchanged;
  ///       the entries before this one have been restored, the later ones
  ///       not.
  virtual void restore() = 0;
  /// Records the current state in this context.
  /// \post As restore(): an exception stops ContextRegistry::save() here.
  virtual void save() = 0;

 protected:
  ContextBase() = default;
  ContextBase(const ContextBase&) = default;
  ContextBase& operator=(const ContextBase&) = default;
};

/// Makes, copies and disposes of one kind of context; the host derives from it.
///
/// \par Thread
/// The registry calls a factory under its lock, on the thread that called the
/// registry; a factory may call back into the registry on that thread.
class VEXUTIL_API ContextFactoryBase {
 public:
  /// Any thread, once no set holds a context of this factory any more.
  virtual ~ContextFactoryBase();
  /// Returns a new context owned by the caller until it is handed to destroy().
  /// \post Should not return null: the registry stores whatever it returns,
  ///       and save and restore skip null entries.
  virtual ContextBase* create() = 0;
  /// Disposes of a context that this factory made.
  /// \pre `context` is not null (the registry skips null entries) and came
  ///      from this factory's create() or clone().
  virtual void destroy(ContextBase* context) = 0;
  /// Returns a new copy of a context that this factory made.
  /// \pre `context` is not null (the registry passes null entries on as null
  ///      without calling clone()) and came from this factory.
  virtual ContextBase* clone(const ContextBase* context) = 0;

 protected:
  ContextFactoryBase() = default;
  ContextFactoryBase(const ContextFactoryBase&) = default;
  ContextFactoryBase& operator=(const ContextFactoryBase&) = default;
};

/// The process-wide list of context factories; see ContextRegistry.h.
///
/// \par Thread
/// Every operation may be called from any thread; they are serialised by one
/// re-entrant lock, held while factories and contexts run.
class VEXUTIL_API ContextRegistry {
 public:
  /// A set of contexts: entry i belongs to factory i.
  using ContextVector = std::vector<ContextBase*>;

  /// The registry of the process, made on the first call (thread-safe) and
  /// never destroyed. Never null.
  /// \par Thread
  /// Any thread, also during static destruction at exit.
  static ContextRegistry* getInstance();

  ContextRegistry(const ContextRegistry&) = delete;
  ContextRegistry& operator=(const ContextRegistry&) = delete;

  /// Appends `factory`, which must outlive every use of the registry. A
  /// factory registered twice contributes two contexts to every set. A null
  /// factory is ignored.
  /// \pre No set exists yet, or the caller accepts that existing sets are
  ///      shorter than the factory list (see the overview). There is no way
  ///      to unregister a factory.
  /// \par Thread
  /// Any thread, also from inside a factory or context call on the thread
  /// that holds the lock.
  void registerFactory(ContextFactoryBase* factory);

  /// Appends one new context per factory, in registration order. The vector is
  /// not cleared first: pass an empty one to get an index-aligned set.
  /// \post On an exception from a factory, the contexts made so far stay in
  ///       `contexts`; the caller hands them back with destroy(). When
  ///       memory runs out, std::bad_alloc passes out the same way; a context
  ///       that could not be appended has gone back to its factory first.
  /// \par Thread
  /// Any thread; `contexts` must not be used by another thread meanwhile.
  void create(ContextVector& contexts);

  /// Hands entry i to factory i for every entry that has a factory, then
  /// empties the vector (its capacity is kept). Null entries are skipped.
  /// \pre `contexts` was made by create() or clone() of this registry and is
  ///      index-aligned (it started empty). Entries beyond the number of
  ///      factories are dropped from the vector without being destroyed.
  /// \post On an exception from a factory, the vector is not emptied; the
  ///       entries before the failing one have been destroyed already.
  /// \par Thread
  /// Any thread; `contexts` must not be used by another thread meanwhile.
  void destroy(ContextVector& contexts);

  /// Calls save() on every entry, in index order; null entries are skipped.
  /// \par Thread
  /// Any thread; the contexts run under the registry's lock.
  void save(ContextVector& contexts) const;

  /// Calls restore() on every entry, in index order; null entries are skipped.
  /// \par Thread
  /// Any thread; the contexts run under the registry's lock.
  void restore(ContextVector& contexts) const;

  /// Appends to `destination` factory i's clone of source entry i, for every
  /// source entry that has a factory. A null source entry yields a null entry,
  /// so the destination stays index-aligned. `destination` is not cleared
  /// first; it may be `source` itself, and the copies then follow the
  /// originals.
  /// \pre `source` is index-aligned, as for destroy(). Pass an empty
  ///      `destination` to get an index-aligned copy.
  /// \post On an exception from a factory, the copies made so far stay in
  ///       `destination`. When memory runs out, std::bad_alloc passes out:
  ///       before any copy is made if `destination` cannot hold them all,
  ///       otherwise as for an exception from a factory.
  /// \par Thread
  /// Any thread; neither vector may be used by another thread meanwhile.
  void clone(ContextVector& destination, const ContextVector& source) const;

  /// Number of registered factories.
  /// \par Thread
  /// Any thread.
  std::size_t getFactoryCount() const;

 private:
  ContextRegistry();
  ~ContextRegistry();

  std::vector<ContextFactoryBase*> factories_;  // Guarded by lock_.
  mutable Corvane::System::CriticalSection lock_;
};

}  // namespace contextmgr
}  // namespace vexutil

#endif  // VEXUTIL_CONTEXTMGR_CONTEXTREGISTRY_H
