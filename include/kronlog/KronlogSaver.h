// The saver: one read over a configuration, written to the store file.
//
//   KronlogSaver::saverFactory(config);  // reads and saves now
//
// With no directories configured, a pattern that does not compile, or
// nothing read, the store file is left as it was. Outcomes are reported
// only through traces (a bad pattern by a level-0 trace that names it);
// nothing is thrown for them.
#ifndef KRONLOG_KRONLOGSAVER_H
#define KRONLOG_KRONLOGSAVER_H

#include "kronlog/Export.h"
#include "kronlog/KronlogReader.h"
#include "qel/Allocator.h"
#include "qel/Ptr.h"
#include "qel/WorkAtConstruction.h"

namespace KronlogSaver {

class KRONLOG_EXPORT Saver : public Qel::PtrInterface, public Qel::WorkAtConstruction<Saver> {
  QEL_TRACKED_ALLOCATION()

 public:
  using Ptr = Qel::Ptr<Saver>;

  // Saves, then marks the saver initialized. `config` must not be null.
  explicit Saver(Qel::Ptr<KronlogReader::Config const> const& config);

  const Qel::Ptr<KronlogReader::Config const>& config() const noexcept { return config_; }

  // One complete save; each call saves afresh. handleInitialized() runs
  // it, then sets initialized whatever it found.
  void doSave();
  static constexpr void (Saver::*kWork)() = &Saver::doSave;

  const Qel::TypeNode* fwkType() const override;

 protected:
  ~Saver() override;

 private:
  Qel::Ptr<KronlogReader::Config const> config_;
};

// Saves; never null.
KRONLOG_EXPORT Saver::Ptr saverFactory(Qel::Ptr<KronlogReader::Config const> const& config);

}  // namespace KronlogSaver

#endif  // KRONLOG_KRONLOGSAVER_H
