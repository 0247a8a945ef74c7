#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "LogToolkit/LogTarget.h"
#include "LogToolkit/NullTarget.h"

using namespace Tamlog;
using Tamtk::makeCounted;

// Meant to run under ThreadSanitizer (-DTAMTK_TSAN=ON) as well: registering,
// looking up, reconfiguring and logging all at once must not race.
TEST(Concurrency, RegisterLookupAndLogAtOnce) {
    const int threads = 4;
    const int rounds = 200;
    std::ostringstream shared;
    LogTarget::registerTarget(makeCounted<LockedStreamTarget>("conc.shared", shared));

    auto work = [&](int id) {
        for (int i = 0; i < rounds; ++i) {
            const std::string own = "conc." + std::to_string(id) + "." + std::to_string(i);
            std::ostringstream mine;
            if (i % 2 == 0) {
                LogTarget::registerTarget(makeCounted<NullTarget>(own));
            } else {
                LogTarget::registerTarget(makeCounted<LockedStreamTarget>(own, mine));
            }
            LogTarget sharedHandle = LogTarget::byname("conc.shared");
            LogTargetSet targets = LogTarget::byname(own) | sharedHandle;
            // Others switch "info" on and off while this thread logs at "warning".
            if (i % 3 == 0) {
                sharedHandle.target()->setSevMask(sev::info);
            } else {
                sharedHandle.target()->resetSevMask(sev::info);
            }
            sendlog(targets, sev::warning, TAMTK_HERE("test"), "round", own);
            sendlog(targets, sev::info, TAMTK_HERE("test"), "maybe", own);
            LogTarget::updateSettings(own, LogTarget::getSettings(own));
            LogTarget::foreachSetSevMask(sev::notice);
            LogTarget::deregister(own);
        }
    };
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t) pool.emplace_back(work, t);
    for (std::thread& t : pool) t.join();

    // Every warning reached the shared target once, each on a whole line of its own.
    std::istringstream lines(shared.str());
    long warnings = 0;
    for (std::string line; std::getline(lines, line);) {
        warnings += line.rfind("EVENT: round SEV: warning WHY: conc.", 0) == 0;
    }
    EXPECT_EQ(warnings, threads * rounds);
    LogTarget::deregister("conc.shared");
}
