// The restorer: brings one agent's saved events back into its writer
// directory after a restart.
//
//   KronlogRestorer::Config config(dir);     // dir->name() is the agent
//   KronlogRestorer::restorerFactory(config);  // restores now
//
// Entries go to the writer named by their message group, created with the
// default configuration when missing, with their saved timestamps and
// without the writer's overflow policy. The position counter over the store
// is 8 bits wide: a store of 256 or more entries is walked again and again
// and the restore never ends, so restore only stores of at most 255 entries.
#ifndef KRONLOG_KRONLOGRESTORER_H
#define KRONLOG_KRONLOGRESTORER_H

#include <cstdint>
#include <iosfwd>
#include <limits>

#include "kronlog/Export.h"
#include "kronlog/KronlogWriter.h"
#include "qel/Allocator.h"
#include "qel/Ptr.h"
#include "qel/String.h"
#include "qel/WorkAtConstruction.h"

namespace KronlogRestorer {

// The restorer's position counter over the store's entries. It is 8 bits
// wide by design: with more entries than it can count, the walk wraps to
// position 0 while entries remain and never ends.
using Position = std::uint8_t;
constexpr std::size_t kMaxRestorableEntries = std::numeric_limits<Position>::max();

// Where to restore: a writer directory, compared by identity.
class KRONLOG_EXPORT Config {
 public:
  Config() = default;
  explicit Config(const KronlogWriter::WriterDir::Ptr& klDir) : klDir_(klDir) {}
  // Parses the pointer text form; the pointer must name a live writer
  // directory. Qel::DeserializeException otherwise.
  Config(Qel::String8::IteratorConst& it, const Qel::String8::IteratorConst& end);

  const KronlogWriter::WriterDir::Ptr& klDir() const noexcept { return klDir_; }
  void klDirIs(const KronlogWriter::WriterDir::Ptr& dir) { klDir_ = dir; }

  bool operator==(const Config& o) const noexcept { return klDir_ == o.klDir_; }
  bool operator!=(const Config& o) const noexcept { return !(*this == o); }

 private:
  KronlogWriter::WriterDir::Ptr klDir_;
};

// The framework's text form of the raw directory pointer.
KRONLOG_EXPORT Qel::String valueToStrep(const Config& value);
KRONLOG_EXPORT std::ostream& operator<<(std::ostream& os, const Config& value);

class KRONLOG_EXPORT Restorer : public Qel::PtrInterface, public Qel::WorkAtConstruction<Restorer> {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<Restorer>;

  // Restores, then marks the restorer initialized.
  explicit Restorer(Config const& config);

  const Config& config() const noexcept { return config_; }

  // Restores the whole store file again on every call. handleInitialized()
  // runs it, then sets initialized whatever it found.
  void doRestore();
  static constexpr void (Restorer::*kWork)() = &Restorer::doRestore;

  const Qel::TypeNode* fwkType() const override;

 protected:
  ~Restorer() override;

 private:
  Config config_;
};

// Restores; never null.
KRONLOG_EXPORT Restorer::Ptr restorerFactory(Config const& config);

}  // namespace KronlogRestorer

#endif  // KRONLOG_KRONLOGRESTORER_H
