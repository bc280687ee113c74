// The accessors of a log attribute, shared by every entity that has one.
//
// An owner derives from LogAttribute<Owner, Member, Value> and so gets the
// generated accessor set over its indexed link queue: logEnq, logDeq,
// newLog, logDel (by index and by iterator), logDelAll, lookup by index,
// iteration. The owner supplies the change hook `logNotify(index)`, called
// after every change of the entry at `index` (a writer tells its notifiees;
// a status does nothing), the check `logWriteCheck()`, called before every
// change (a read-only copy of a writer refuses user code; a status allows
// everything), and its own logIs, whose rules differ by owner.
//
// An absent entry reads as Value(): a default entry for a log that holds
// values, a null pointer for one that holds pointers.
#ifndef QEL_LOGATTRIBUTE_H
#define QEL_LOGATTRIBUTE_H

#include <type_traits>
#include <utility>

#include "qel/LinkQueue.h"
#include "qel/Ptr.h"

namespace Qel {

template <class Owner, class Member, class Value>
class LogAttribute {
 public:
  using QelLog = Member;
  using LogQueue = LinkQueue<Member, unsigned int, Value>;
  using LogIterator = typename LogQueue::Iterator;
  using LogIteratorConst = typename LogQueue::IteratorConst;

  // Number of entries.
  unsigned int logs() const noexcept { return log_.members(); }
  // The entry with exactly that index, or Value() when there is none. The
  // oldest and newest entries are found in constant time.
  Value log(unsigned int index) const {
    const Member* m = log_.find(index);
    return m ? m->value() : Value();
  }
  Value operator[](unsigned int const& index) const { return log(index); }

  // Iteration runs from the oldest entry to the newest and survives changes
  // to the log (an iterator re-finds its place by index).
  LogIteratorConst logIterConst() const { return log_.iteratorConst(); }
  LogIterator logIter() { return log_.iterator(); }
  // The queue itself, for range-for over the members: `for (auto& m : o.logQueue())`.
  const LogQueue& logQueue() const noexcept { return log_; }

  // Appends at the next index (never reusing one that dequeuing freed).
  // Throws RangeException "linkqueue index space full" when no index is left.
  void logEnq(Value entry) {
    logChangeCheck();
    logAppend(Ptr<Member>(new Member(log_.effectiveNextIndex(), std::move(entry))));
  }
  // Removes the oldest entry and returns it; Value(), and no notification,
  // when the log is empty.
  Value logDeq() {
    logChangeCheck();
    Ptr<Member> m = log_.deq();
    if (!m) return Value();
    notify(m->index());
    return m->value();
  }
  // Appends every entry of `pending` in order, as logEnq would one by one
  // (same indexes, one notification per index), and leaves it empty.
  // `pending` is a queue the caller filled by appends after
  // pending.indicesIs(n, n), n being logQueue().appendIndex(): building
  // the entries apart and linking them in at once means a failure while
  // building leaves this log as it was. Throws like logEnq, at the same
  // entry, when the index space fills up.
  void logSplice(LogQueue& pending) {
    logChangeCheck();
    const unsigned int first = log_.appendIndex();
    const unsigned int added = pending.members();
    if (!log_.spliceBack(pending)) {
      for (Ptr<Member> m = pending.deq(); m; m = pending.deq()) logAppend(std::move(m));
      return;
    }
    for (unsigned int k = 0; k < added; ++k) notify(first + k);
  }

  // logDeq handing back the removed member instead of a copy of its entry
  // (null when the log is empty): a full log evicting its oldest entry
  // discards it, or reuses it for the next one.
  Ptr<Member> logEvict() {
    logChangeCheck();
    Ptr<Member> m = log_.deq();
    if (m) notify(m->index());
    return m;
  }
  // Inserts a member at `index`, or replaces the one there, without
  // notifying; returns it. Throws like logEnq when no index is left.
  Ptr<Member> newLog(unsigned int index, const Value& entry) {
    logChangeCheck();
    Ptr<Member> m(new Member(index, entry));
    log_.doMemberIs(index, m.ptr(), false);
    return m;
  }
  // Removes the entry with exactly that index and returns it; Value(), and
  // no notification, when there is none.
  Value logDel(unsigned int index) {
    logChangeCheck();
    Ptr<Member> m = log_._memberDel(index);
    if (!m) return Value();
    notify(index);
    return m->value();
  }
  // The same for the entry under `it`; Value() when it stands on nothing.
  Value logDel(LogIterator& it) { return it ? logDel(it.index()) : Value(); }
  // Removes every entry, oldest first, notifying each index.
  void logDelAll() {
    for (LogIterator it = log_.iterator(); it; ++it) logDel(it);
  }

 public:
  LogAttribute(const LogAttribute&) = delete;
  LogAttribute& operator=(const LogAttribute&) = delete;

 protected:
  LogAttribute() = default;
  ~LogAttribute() = default;

  void notify(unsigned int index) { static_cast<Owner*>(this)->logNotify(index); }
  // Links `m`, a member of no queue, at the next index and notifies: what
  // newLog does there, without the search. Throws like logEnq.
  void logAppend(Ptr<Member> m) {
    const unsigned int index = log_.effectiveNextIndex();
    log_.append(m.ptr());
    notify(index);
  }
  // The owner's logWriteCheck() throws for a change that user code makes
  // to a read-only copy; an owner that is never a copy does nothing there.
  void logChangeCheck() const { static_cast<const Owner*>(this)->logWriteCheck(); }

  LogQueue log_;
};

}  // namespace Qel

#endif  // QEL_LOGATTRIBUTE_H
