// handset.cpp - construction of a simulated handset's state.
#include "handset.h"

namespace kvn_sim {

Handset::Handset(const std::filesystem::path &dir)
    : state_dir(dir), store(dir), props(dir / "properties.json", dir / ModemStore::kTempDir), log(dir / "logcat.txt"),
      nvefs(store, [this](const std::string &t) { note(kLogWarn, t); })
{
}

bool Handset::init(std::string *err)
{
    return store.init(err) && props.load(err);
}

} // namespace kvn_sim
