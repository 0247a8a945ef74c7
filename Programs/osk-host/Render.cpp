#include "Programs/osk-host/Render.h"

#include <libxml/tree.h>

#include "Osk/EmailAgentBinding.h"
#include "XmlToolkit/Xml.h"

namespace Osk {

const char* const renderAgent = "libemail_agent_render.so";

void renderInstead(const boost::shared_ptr<const Tamxml::Document>& config) {
    const boost::shared_ptr<const Tamxml::Element> agent = EmailChannel::agentElement(config);
    if (!agent) {
        return;
    }
    // The document is this run's own copy, read from the file for it alone.
    xmlSetProp(agent->get(), BAD_CAST "lib", BAD_CAST renderAgent);
}

}  // namespace Osk
