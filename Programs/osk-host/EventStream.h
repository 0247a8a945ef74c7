#pragma once

#include <libxml/parser.h>

#include <boost/shared_ptr.hpp>
#include <deque>
#include <string>
#include <vector>

#include "Osk/ChannelEvent.h"
#include "Programs/osk-host/EventScanner.h"

namespace Osk {

// Reads <Events><Event id="N"><doc .../></Event>...</Events> one event at a
// time. The stream is fed to libxml2's push parser in pieces as it arrives;
// each Event is taken out of the parser's tree the moment its end tag is
// parsed, so memory stays flat however long the stream, and every event
// completed before a syntax error is still handed out before the error.
// An EventScanner in front of the parser drops every event over the bounds
// before the parser sees it; the stream goes on after it. Entity references
// are not substituted: an external entity is never read.
class EventStream {
public:
    struct Problem {
        std::string message;
        int line;
        bool fatal;  // the stream cannot be read further
    };

    // "-" reads standard input. `stop`, when given, is a descriptor that
    // becomes readable when reading should end (a signal's self-pipe).
    explicit EventStream(const std::string& path, const EventScanner::Limits& limits = {},
                         int stop = -1);
    ~EventStream();
    EventStream(const EventStream&) = delete;
    EventStream& operator=(const EventStream&) = delete;

    // The next event, or null when the stream ends or breaks. An event that
    // cannot be used (no numeric id, no document) is skipped and described
    // in `problem`, and null is returned with problem.fatal false: call
    // again for the following events.
    boost::shared_ptr<ChannelEvent> next(Problem& problem, bool& hadProblem);

    // Where the event last handed out starts (its line).
    int line() const { return line_; }
    // Reading ended because `stop` became readable.
    bool stopped() const { return stopped_; }

private:
    struct Item {
        boost::shared_ptr<ChannelEvent> event;
        Problem problem;  // when there is no event
        int line;
    };

    void feed();
    bool readBlock();  // false at the end of the stream
    void startParser();
    void parseSlice();
    int parserLine() const;
    void fail(const std::string& message, int line);
    void take(xmlNodePtr element);

    static void _onStart(void* context, const xmlChar* localname, const xmlChar* prefix,
                         const xmlChar* uri, int namespaceCount, const xmlChar** namespaces,
                         int attributeCount, int defaultedCount, const xmlChar** attributes);
    static void _onEnd(void* context, const xmlChar* localname, const xmlChar* prefix,
                       const xmlChar* uri);
    static void _onError(void* context, xmlErrorPtr error);

    int fd_;
    bool ownsFd_;
    int stop_;
    bool stopped_;
    std::vector<char> block_;  // what the last read() returned
    std::size_t blockSize_;
    std::size_t blockScanned_;
    EventScanner scanner_;
    std::string toParse_;  // what the scanner let through, not parsed yet
    std::size_t parsed_;
    bool drop_;  // a dropped event is due once toParse_ is parsed
    EventScanner::Dropped dropped_;
    bool ended_;       // the input has ended; the parser is told once toParse_ is parsed
    long lineOffset_;  // line breaks of dropped events the parser never saw
    int line_;
    xmlParserCtxtPtr parser_;
    std::deque<Item> ready_;
    bool finished_;  // nothing more will be parsed
    bool failed_;    // a fatal problem is queued
    int eventLine_;  // where the Event being parsed starts
    // The parser's first complaint; a fatal one (not well formed) wins.
    std::string error_;
    int errorLine_;
    bool errorFatal_;
};

}  // namespace Osk
