// Configuration: do_configure on any XML is read or refused with a toolkit
// (or a token name's regular-expression) exception; an accepted one renders
// an event for each group without losing it and shuts down cleanly.

#include <libxml/tree.h>

#include <boost/regex.hpp>
#include <cstdlib>
#include <set>

#include "ChannelHarness.h"
#include "FuzzCheck.h"

namespace {

// No input may load a library of its own: every agent is the recording one.
void _bindRecordingAgent(const Tamxml::Document& doc) {
    xmlNodePtr root = xmlDocGetRootElement(doc.get());
    if (root == nullptr)
        return;
    for (xmlNodePtr node = root->children; node != nullptr; node = node->next) {
        if (node->type == XML_ELEMENT_NODE && xmlStrEqual(node->name, BAD_CAST "EmailAgent")) {
            xmlSetProp(node, BAD_CAST "lib", BAD_CAST FUZZ_AGENT_PATH);
        }
    }
}

const char _event[] =
    "<event severity='3'><host>db1.example.com</host><detail>disk full</detail>"
    "<msg>Grüße — 警告</msg></event>";

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The same charset, chosen by locale, for every run.
    unsetenv("TAM_LANG");
    unsetenv("LANGUAGE");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    boost::shared_ptr<const Tamxml::Document> doc =
        fuzzing::parseOrNull(reinterpret_cast<const char*>(data), size);
    if (!doc)
        return 0;
    _bindRecordingAgent(*doc);

    fuzzing::CountingChannel channel;
    bool configured = false;
    try {
        configured = channel.do_configure(Osk::ChannelCfg(doc));
    } catch (const Tamtk::Exception&) {
    } catch (const boost::regex_error&) {
    }

    if (configured) {
        fuzzing::check(channel.send_function() != nullptr, "configured without an agent");
        const boost::shared_ptr<const Tamxml::Document> eventDoc =
            Tamxml::Document::fromMemory(_event, sizeof _event - 1);
        int rendered = 0;
        for (const auto& group : channel.event_groups()) {
            if (++rendered > 3)
                break;
            // Headers with a value are in the mail; with a name that is no
            // field name, only the delivery is checked.
            std::set<std::string> expected;
            bool checkable = true;
            try {
                for (const auto& header : group.second.extra_headers) {
                    checkable = checkable && testing_support::isFieldName(header.first) &&
                                !fuzzing::standardHeaders().count(header.first);
                    const bool fromEvent =
                        header.second.xpath &&
                        Tamxml::find_first_value(eventDoc, *header.second.xpath) != nullptr;
                    if (fromEvent || (header.second.default_ && !header.second.default_->empty())) {
                        expected.insert(header.first);
                    }
                }
            } catch (const Tamtk::Exception&) {
                checkable = false;  // do_log meets the same failure and must report it
            }
            fuzzing::logAndCheck(channel, group.first, eventDoc, checkable ? &expected : nullptr);
        }
    }
    channel.do_shutdown();
    fuzzing::check(
        channel.tokens().empty() && channel.event_groups().empty() && channel.recipients().empty(),
        "do_shutdown left configuration behind");
    return 0;
}
