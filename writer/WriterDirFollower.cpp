// Following a whole mounted writer directory: one WriterFollower per
// writer, kept across resyncs of the same agent process and started over
// when the agent was restarted.
#include <utility>
#include <vector>

#include "kronlog/KronlogWriterStreaming.h"

namespace KronlogWriter {

// One writer's follower, handing its entries and losses to the directory's.
class WriterDirFollower::One : public WriterFollower {
 public:
  One(WriterDirFollower* owner, Qel::Name name, Start start)
      : WriterFollower(start), owner_(owner), name_(std::move(name)) {}
  void onEntry(unsigned int index, const LogEntry& entry) override {
    owner_->onEntry(name_, index, entry);
  }
  void onLoss(const Loss& loss) override { owner_->onLoss(name_, loss); }

 private:
  WriterDirFollower* owner_;
  Qel::Name name_;
};

WriterDirFollower::WriterDirFollower(const WriterDirMount::Ptr& mount, WriterFollower::Start start)
    : mount_(mount), start_(start) {
  Qel::Mount::Notifiee::notifierIs(mount_->mount());
}

WriterDirFollower::~WriterDirFollower() {
  // The per-writer followers call back into this object: let them go first.
  followers_.clear();
  WriterDir::Notifiee::notifierIs(nullptr);
  Qel::Mount::Notifiee::notifierIs(nullptr);
}

void WriterDirFollower::onSynced() {
  WriterDir::Ptr copy = mount_->copy();
  if (!copy) return;
  const std::uint64_t incarnation = mount_->mount()->incarnation();
  if (incarnation != incarnation_) {
    // Another process: its indices are not the old one's. Only the very
    // first sync is not a restart.
    const bool restarted = incarnation_ != 0;
    followers_.clear();
    incarnation_ = incarnation;
    if (restarted) onRestart();
  }
  agent_ = copy->name();
  WriterDir::Notifiee::notifierIs(copy);
  // Writers gone while the connection was down are let go; the others
  // continue on the fresh copy, or start if they are new.
  for (auto it = followers_.begin(); it != followers_.end();) {
    it = copy->writer(Qel::Name(it->first)) ? std::next(it) : followers_.erase(it);
  }
  std::vector<Qel::Name> names;
  for (const Writer& w : copy->writerMap()) names.push_back(w.name());
  for (const Qel::Name& name : names) follow(name, copy->writer(name));
}

void WriterDirFollower::onWriter(const Qel::Name& name) {
  Writer::Ptr writer = WriterDir::Notifiee::notifier()->writer(name);
  if (writer) {
    follow(name, writer);
  } else {
    followers_.erase(name.stdString());
  }
}

void WriterDirFollower::follow(const Qel::Name& name, const Writer::Ptr& writer) {
  std::unique_ptr<One>& one = followers_[name.stdString()];
  if (!one) one = std::make_unique<One>(this, name, start_);
  one->writerIs(writer);
}

}  // namespace KronlogWriter
