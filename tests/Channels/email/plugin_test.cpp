#include <dlfcn.h>
#include <gtest/gtest.h>

#include "Osk/Channel.h"

namespace {
typedef boost::shared_ptr<Osk::Channel> (*CreateChannel)();
}

TEST(Plugin, HostLoadsCreatesDrivesAndReleasesTwoChannels) {
    void* lib = dlopen(EMAIL_CHANNEL_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    auto create = reinterpret_cast<CreateChannel>(dlsym(lib, "createChannel"));
    ASSERT_NE(create, nullptr) << dlerror();

    int reports = 0;
    {
        boost::shared_ptr<Osk::Channel> first = create();
        boost::shared_ptr<Osk::Channel> second = create();
        ASSERT_TRUE(first && second);
        EXPECT_EQ(first->name(), "email");
        for (auto* ch : {first.get(), second.get()}) {
            ch->set_reporter([&](const Tamlog::severity_mask&, const std::string&) { ++reports; });
            // An unconfigured channel knows no event: nothing is sent or reported.
            ch->do_log(boost::shared_ptr<Osk::ChannelEvent>(new Osk::ChannelEvent(1, {})));
            ch->do_flush();
            ch->do_shutdown();
            ch->do_shutdown();
        }
    }
    EXPECT_EQ(reports, 0);
    dlclose(lib);
}
