#pragma once

// Loading and configuring the channel plug-in: the same steps for a run,
// --render and --send-test, so that each sees the channel a run would.

#include <boost/shared_ptr.hpp>
#include <string>

#include "Osk/Channel.h"
#include "Programs/osk-host/HostLog.h"

namespace Osk {

typedef boost::shared_ptr<Channel> (*CreateChannel)();

// The plug-in's createChannel; null, after a note in `log`, when the plug-in
// does not load or lacks it. The plug-in stays loaded for the process: objects
// it made may be referenced at exit.
CreateChannel loadChannel(const std::string& path, const HostLog& log);

// Configures `channel` from the file `config`, notes why in `log` when that
// fails. With `render`, the configuration's agent is replaced in memory by
// the render agent (Render.h) first.
bool configureChannel(Channel& channel, const std::string& config, bool render, const HostLog& log);

}  // namespace Osk
