// initMTR's argument string comes from the platform's per-app settings: any
// bytes must parse, and only the documented tokens may change behaviour.

#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>
#include <string>

#include "loader/KAMLoader.h"
#include "runtime/KAMManager.h"
#include "support.h"

using android::KAMManager;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    support::initLayer();
    FuzzedDataProvider in(data, size);
    const bool debuggable = in.ConsumeBool();
    const std::string args = in.ConsumeRemainingBytesAsString();
    KAMManager* m = KAMManager::INSTANCE;
    m->mClientArrays = false;
    support::clearLog();
    m->initMTR("fuzz.app", debuggable, args);

    // Model: '|'-separated tokens compared whole, bytes after a NUL included.
    const size_t bar = args.find('|');
    const std::string first = args.substr(0, bar);
    std::string second;
    if (bar != std::string::npos) second = args.substr(bar + 1, args.find('|', bar + 1) - bar - 1);
    const bool wantArrays = first == "1";
    const bool wantEnabled = !android::KAMLoader::getInstance()->mMissingEntries && !(debuggable && second == "1");
    if (m->mClientArrays != wantArrays || m->mEnabled != wantEnabled || m->mName != "fuzz.app") abort();
    return 0;
}
