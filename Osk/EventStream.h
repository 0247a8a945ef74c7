#pragma once

#include <libxml/xmlreader.h>

#include <boost/shared_ptr.hpp>
#include <string>

#include "Osk/ChannelEvent.h"

namespace Osk {

// Reads <Events><Event id="N"><doc .../></Event>...</Events> one event at a
// time with libxml2's streaming reader, so memory stays flat however long the
// stream. The single child element of each Event is that event's document.
class EventStream {
public:
    struct Problem {
        std::string message;
        int line;
        bool fatal;  // the stream cannot be read further
    };

    // "-" reads standard input.
    explicit EventStream(const std::string& path);
    ~EventStream();
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;

    // The next event, or null when the stream ends or breaks. An event that
    // cannot be used (no numeric id, no document) is skipped and described
    // in `problem`, and null is returned with problem.fatal false: call
    // again for the following events.
    boost::shared_ptr<ChannelEvent> next(Problem& problem, bool& hadProblem);

    // The parser's current line, for messages.
    int line() const;

private:
    static void _onError(void* self, const char* message, xmlParserSeverities severity,
                         xmlTextReaderLocatorPtr locator);

    xmlTextReaderPtr reader_;
    bool positioned_;  // the reader already stands on the next node
    bool done_;
    std::string lastError_;
    int lastErrorLine_;
};

}  // namespace Osk
