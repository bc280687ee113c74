// kronlog collect: keeps read-only copies of agents' writer directories and
// saves their merged history with the library's saver, as a device's
// collector process would.
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "kronlog/KronlogReader.h"
#include "kronlog/KronlogSaver.h"
#include "kronlog/KronlogStore.h"
#include "kronlog/KronlogWriterStreaming.h"
#include "tools/Commands.h"
#include "tools/Options.h"
#include "tools/Output.h"
#include "tools/Signals.h"
#include "tools/Usage.h"

extern char** environ;

namespace KronlogTool {

namespace {

const std::vector<OptionSpec> kCollectOptions = {
    {"socket", 0, true, true}, {"store", 0, true, false}, {"every", 0, true, false}};

constexpr char kStoreVariable[] = "KRONLOG_STORE_FILE_PATH";

// The saver writes where the environment says, as in any agent. When it
// says otherwise than --store, this process runs itself again with the
// environment set, the way an agent's launcher sets it.
void execWithStore(const std::string& store, const Args& args) {
  std::vector<std::string> env = {std::string(kStoreVariable) + "=" + store};
  for (char** e = environ; *e; ++e) {
    if (std::string(*e).rfind(std::string(kStoreVariable) + "=", 0) != 0) env.emplace_back(*e);
  }
  std::vector<std::string> argvText = {"kronlog", "collect"};
  argvText.insert(argvText.end(), args.begin(), args.end());
  std::vector<char*> argv, envp;
  for (std::string& a : argvText) argv.push_back(a.data());
  for (std::string& e : env) envp.push_back(e.data());
  argv.push_back(nullptr);
  envp.push_back(nullptr);
  ::execve("/proc/self/exe", argv.data(), envp.data());
}

}  // namespace

int collectCommand(const Args& args) {
  Options options(kCollectOptions);
  if (const int status = startCommand("collect", kCollectUsage, args, options); status >= 0) {
    return status;
  }
  if (!options.has("socket")) return usageError("collect", "--socket PATH is required");
  if (const int status = socketPathsCheck("collect", options.values("socket")); status >= 0) {
    return status;
  }
  if (!options.has("store") || options.value("store").empty()) {
    return usageError("collect", "--store FILE is required");
  }
  double every = 60;
  if (options.has("every")) {
    const std::string text = options.value("every");
    char* end = nullptr;
    every = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(every) || every < 0.01) {
      return usageError("collect",
                        "bad --every '" + text + "': expected seconds between saves, 0.01 or more");
    }
  }
  const std::string store = options.value("store");
  if (KronlogStore::storeFilePath() != store) {
    execWithStore(store, args);
    std::fprintf(stderr, "kronlog collect: cannot run again with the store path: %s\n",
                 std::strerror(errno));
    return kExitData;
  }

  Qel::EventLoop::Ptr loop = new Qel::EventLoop;
  Qel::Ptr<Qel::Dir> agents = Qel::Dir::DirIs("agents");
  // Each mount keeps its last copy in `agents` when its agent goes away,
  // so an agent that ended is still saved.
  std::vector<KronlogWriter::WriterDirMount::Ptr> mounts;
  for (const std::string& path : options.values("socket")) {
    mounts.push_back(new KronlogWriter::WriterDirMount(loop.ptr(), agents, Qel::String(path)));
    mounts.back()->mount()->retryDelaysIs(0.05, 1);
  }
  KronlogReader::Config::Ptr config = KronlogReader::configFactory();
  config->dirIs(agents);
  bool stopped = false;
  StopSignals signals(loop.ptr(), [&stopped] { stopped = true; });
  std::function<void()> save = [&] {
    KronlogSaver::saverFactory(config);
    loop->timerIs(every, save);
  };
  loop->timerIs(every, save);
  while (!stopped) loop->runOnce(-1);
  KronlogSaver::saverFactory(config);
  return kExitOk;
}

}  // namespace KronlogTool
