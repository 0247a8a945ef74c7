#include "Programs/osk-host/ChannelSetup.h"

#include <dlfcn.h>

#include <sstream>

#include "Programs/osk-host/Render.h"
#include "XmlToolkit/Xml.h"

namespace Osk {

CreateChannel loadChannel(const std::string& path, const HostLog& log) {
    void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle == nullptr) {
        log.note("cannot load " + path + ": " + dlerror());
        return nullptr;
    }
    CreateChannel create = reinterpret_cast<CreateChannel>(dlsym(handle, "createChannel"));
    if (create == nullptr) {
        log.note(path + " has no createChannel");
    }
    return create;
}

bool configureChannel(Channel& channel, const std::string& config, bool render,
                      const HostLog& log) {
    bool configured = false;
    try {
        const boost::shared_ptr<const Tamxml::Document> document =
            Tamxml::Document::fromFile(config);
        if (render) {
            renderInstead(document);
        }
        configured = channel.do_configure(ChannelCfg(document));
        if (!configured) {
            log.note("the channel did not accept " + config);
        }
    } catch (const Tamtk::Exception& e) {
        std::ostringstream where;
        where << e.location();
        log.note("configuration failed: " + std::string(e.what()));
        log.note("  at " + where.str());
    } catch (const std::exception& e) {
        log.note("configuration failed: " + std::string(e.what()));
    }
    return configured;
}

}  // namespace Osk
