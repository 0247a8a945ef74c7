// The host's event reader: what reaches the channel from well-formed, broken
// and hostile streams, and where problems are said to be.

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "Programs/osk-host/EventStream.h"
#include "XmlToolkit/Xml.h"

namespace {

// What the reader handed out, in order: "7:value@line" for an event (its id,
// the text of the document's root, with its namespace in braces, and the line
// the event starts on), "skip@line: message" or "FATAL@line: message".
std::vector<std::string> readAll(const std::string& content,
                                 const Osk::EventScanner::Limits& limits = {}) {
    const int fd = memfd_create("events", MFD_CLOEXEC);
    EXPECT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
    Osk::EventStream stream("/proc/self/fd/" + std::to_string(fd), limits);
    std::vector<std::string> seen;
    for (;;) {
        Osk::EventStream::Problem problem;
        bool hadProblem = false;
        boost::shared_ptr<Osk::ChannelEvent> event = stream.next(problem, hadProblem);
        if (hadProblem) {
            seen.push_back((problem.fatal ? "FATAL@" : "skip@") + std::to_string(problem.line) +
                           ": " + problem.message);
            if (problem.fatal)
                break;
        } else if (!event) {
            break;
        } else {
            auto value = [&](const char* path) {
                auto text = Tamxml::find_first_value(event->document(), path);
                return text ? text->str() : "";
            };
            const std::string ns = value("namespace-uri(/*)");
            seen.push_back(std::to_string(event->id()) + ":" + (ns.empty() ? "" : "{" + ns + "}") +
                           value("string(/*)") + "@" + std::to_string(stream.line()));
        }
    }
    close(fd);
    return seen;
}

// Each item of `seen` starts with its counterpart in `expected` (a parser's
// own wording of a problem is not pinned).
void expectPrefixes(const std::vector<std::string>& expected,
                    const std::vector<std::string>& seen) {
    ASSERT_EQ(expected.size(), seen.size()) << testing::PrintToString(seen);
    for (std::size_t i = 0; i < seen.size(); ++i)
        EXPECT_EQ(0u, seen[i].rfind(expected[i], 0)) << seen[i] << " is not " << expected[i];
}

TEST(EventStream, WhatEachStreamHandsOut) {
    std::string bomb = "<!ENTITY l0 'lol'>";
    for (int i = 1; i < 10; ++i) {
        std::string ten;
        for (int k = 0; k < 10; ++k) ten += "&l" + std::to_string(i - 1) + ";";
        bomb += "<!ENTITY l" + std::to_string(i) + " '" + ten + "'>";
    }
    struct Case {
        std::string stream;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        {"<?xml version='1.0'?>\n<Events xmlns:a='urn:a'>\n<Event id='1'><x>a</x></Event>"
         "<Event id='22'><y>b</y></Event>\n<!-- c -->\n"
         "<Event id='3'>\n  <z>c</z>\n</Event>\n<Event id='4'><a:z>d</a:z></Event></Events>\n",
         {"1:a@3", "22:b@3", "3:c@5", "4:{urn:a}d@8"}},
        {"<?xml version='1.0' encoding='ISO-8859-1'?><Events><Event "
         "id='1'><d>K\xF6ln</d></Event></Events>",
         {"1:K\xC3\xB6ln@1"}},
        // An entity expansion bomb stops the stream after what came before it.
        {"<!DOCTYPE Events [" + bomb + "]>\n<Events><Event id='1'><d>a</d></Event>\n" +
             "<Event id='2'><d>&l9;</d></Event><Event id='3'><d>c</d></Event></Events>",
         {"1:a@2", "FATAL@"}},
        {"", {"FATAL@0: the event stream is empty"}},
        {"<Alarms><Event id='1'><d/></Event></Alarms>",
         {"FATAL@1: the stream's root element must be Events, not Alarms"}},
        {"<Events/><Events/>", {"FATAL@1: "}},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.stream);
        expectPrefixes(c.expected, readAll(c.stream));
    }
}

// Whatever point a stream breaks off at, every event whose end tag came
// before it is delivered, then one fatal problem ends the stream.
TEST(EventStream, EveryPrefixDeliversTheEventsCompleteInIt) {
    std::string stream = "<Events>\n";
    std::vector<std::size_t> ends;  // offset just past each </Event>
    for (int i = 0; i < 12; ++i) {
        stream += "<Event id=\"" + std::to_string(i) + "\"><d k=\"v\">text " + std::to_string(i) +
                  "</d></Event>";
        ends.push_back(stream.size());
        stream += i % 3 ? "\n" : "";
    }
    stream += "</Events>";
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        const std::vector<std::string> seen = readAll(stream.substr(0, cut));
        const long complete =
            std::count_if(ends.begin(), ends.end(), [&](std::size_t end) { return end <= cut; });
        ASSERT_EQ(complete + (cut < stream.size()), static_cast<long>(seen.size()))
            << "cut at " << cut;
        EXPECT_EQ(cut < stream.size(), seen.back().rfind("FATAL@", 0) == 0) << "cut at " << cut;
    }
}

// An event that cannot be used, or is over a bound (the host's or the
// parser's), is skipped where it starts, and the events after it arrive with
// their own lines.
TEST(EventStream, UnusableEventsAreSkippedAndTheStreamGoesOn) {
    Osk::EventScanner::Limits small;
    small.maxBytes = 200;
    small.maxNodes = 5;
    const std::string big(10000001, 'x');
    std::string deep;
    for (int i = 0; i < 300; ++i) deep += "<n>";
    for (int i = 0; i < 300; ++i) deep += "</n>";
    struct Case {
        std::string event;
        const char* why;
        Osk::EventScanner::Limits limits = {};
    };
    const Case cases[] = {
        {"<Event id='-3'><d>v</d></Event>", "event without a numeric id"},
        {"<Event id='99999999999999999999999'><d>v</d></Event>", "event without a numeric id"},
        {"<Event><d>v</d></Event>", "event without a numeric id"},
        {"<Event id='5'>just text</Event>", "event 5 has no document"},
        {"<Other id='5'><d>v</d></Other>", "unexpected element Other"},
        // Line numbers past what 16 bits hold.
        {std::string(70000, '\n') + "<Event id='z'><d/></Event>", "event without a numeric id"},
        {"<Event id='5'>\n<d/><d/>\n<d/><d/><d/></Event>",
         "event skipped: it has more than 5 elements", small},
        {"<Event id='5' a='" + std::string(300, '>') + "'/>",
         "event skipped: it is larger than 200 bytes", small},
        {"<Event id='5'><d>" + big + "</d></Event>", "event skipped: it holds a text longer"},
        {"<Event id='5'><d a='" + big + "'/></Event>",
         "event skipped: it holds an attribute value longer"},
        {"<Event id='5'><!--" + big + "--></Event>", "event skipped: it holds a comment longer"},
        {"<Event id='5'><" + std::string(50001, 'n') + "/></Event>",
         "event skipped: it holds a name longer"},
        {"<Event id='5'>" + deep + "</Event>", "event skipped: its elements nest deeper than 256"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.why);
        const std::size_t starts = 4 + c.event.find_first_not_of('\n');
        const std::size_t after = 5 + std::count(c.event.begin(), c.event.end(), '\n');
        expectPrefixes({"1:a@2", "skip@" + std::to_string(starts) + ": " + c.why,
                        "2:b@" + std::to_string(after),
                        "skip@" + std::to_string(after + 1) + ": event without a numeric id"},
                       readAll("<Events>\n<Event id='1'><d>a</d></Event>\n\n" + c.event +
                                   "\n<Event id='2'><d>b</d></Event>\n<Event id='x'/>\n</Events>",
                               c.limits));
    }
}

}  // namespace
