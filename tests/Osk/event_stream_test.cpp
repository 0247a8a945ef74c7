// The host's event reader: what reaches the channel from well-formed, broken
// and hostile streams, and where problems are said to be.

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include "Osk/EventStream.h"
#include "XmlToolkit/Xml.h"

namespace {

// What the reader handed out, in order: "7:value" for an event (its id and
// the text of the document's root; with `lines`, "@line" of the reader after
// it), "skip@line" or "FATAL@line: message". `skipped` gets the first skip's text.
std::vector<std::string> readAll(const std::string& content,
                                 const Osk::EventScanner::Limits& limits = {}, bool lines = false,
                                 std::string* skipped = nullptr) {
    char path[] = "/tmp/event_stream_test.XXXXXX";
    const int fd = mkstemp(path);
    EXPECT_GE(fd, 0);
    EXPECT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
    close(fd);

    std::vector<std::string> seen;
    {
        Osk::EventStream stream(path, limits);
        for (int guard = 0; guard < 100000; ++guard) {
            Osk::EventStream::Problem problem;
            bool hadProblem = false;
            boost::shared_ptr<Osk::ChannelEvent> event = stream.next(problem, hadProblem);
            if (hadProblem) {
                if (problem.fatal) {
                    seen.push_back("FATAL@" + std::to_string(problem.line) + ": " +
                                   problem.message);
                    break;
                }
                seen.push_back("skip@" + std::to_string(problem.line));
                if (skipped && skipped->empty())
                    *skipped = problem.message;
                continue;
            }
            if (!event)
                break;
            boost::shared_ptr<const Tamtk::Utf8Array> text =
                Tamxml::find_first_value(event->document(), "string(/*)");
            boost::shared_ptr<const Tamtk::Utf8Array> ns =
                Tamxml::find_first_value(event->document(), "namespace-uri(/*)");
            seen.push_back(std::to_string(event->id()) + ":" +
                           (ns && ns->length() ? "{" + ns->str() + "}" : "") +
                           (text ? text->str() : "") +
                           (lines ? "@" + std::to_string(stream.line()) : ""));
        }
    }
    unlink(path);
    return seen;
}

int countEvents(const std::vector<std::string>& seen) {
    int n = 0;
    for (const auto& s : seen)
        n += s.find(':') != std::string::npos && s.compare(0, 5, "FATAL") != 0;
    return n;
}

TEST(EventStream, DeliversEveryEventInOrder) {
    EXPECT_EQ(
        (std::vector<std::string>{"1:a", "22:b", "3:c", "4:{urn:a}d"}),
        readAll(
            "<?xml version='1.0'?>\n<Events xmlns:a='urn:a'>\n<Event id='1'><x>a</x></Event>"
            "<Event id='22'><y>b</y></Event>\n<!-- c -->\n"
            "<Event id='3'>\n  <z>c</z>\n</Event>\n<Event id='4'><a:z>d</a:z></Event></Events>\n"));
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
    for (std::size_t cut = 0; cut < stream.size(); ++cut) {
        const std::vector<std::string> seen = readAll(stream.substr(0, cut));
        int complete = 0;
        for (std::size_t end : ends) complete += end <= cut;
        ASSERT_EQ(complete, countEvents(seen)) << "cut at " << cut;
        ASSERT_FALSE(seen.empty());
        EXPECT_EQ(0u, seen.back().rfind("FATAL@", 0)) << "cut at " << cut;
    }
    EXPECT_EQ(12, countEvents(readAll(stream)));
}

TEST(EventStream, UnusableEventsAreSkippedWithTheirLine) {
    struct Case {
        const char* event;
        const char* problem;
    };
    const Case cases[] = {
        {"<Event id='x1'><d>v</d></Event>", "numeric id (id=\"x1\")"},
        {"<Event id=''><d>v</d></Event>", "numeric id (id=\"\")"},
        {"<Event id='-3'><d>v</d></Event>", "numeric id"},
        {"<Event id='99999999999999999999999'><d>v</d></Event>", "numeric id"},
        {"<Event><d>v</d></Event>", "numeric id"},
        {"<Event id='5'>just text</Event>", "event 5 has no document"},
        {"<Other id='5'><d>v</d></Other>", "unexpected element Other"},
    };
    for (const Case& c : cases) {
        const std::vector<std::string> seen =
            readAll(std::string("<Events>\n<Event id='1'><d>a</d></Event>\n\n") + c.event +
                    "\n<Event id='2'><d>b</d></Event>\n</Events>");
        EXPECT_EQ((std::vector<std::string>{"1:a", "skip@4", "2:b"}), seen) << c.event;
    }
}

TEST(EventStream, LineNumbersPastSixtyFiveThousand) {
    const std::string seen =
        readAll("<Events>" + std::string(70000, '\n') + "<Event id='z'><d/></Event></Events>")
            .at(0);
    EXPECT_EQ("skip@70001", seen);
}

TEST(EventStream, StreamsThatAreNoEventStreams) {
    EXPECT_EQ((std::vector<std::string>{"FATAL@0: the event stream is empty"}), readAll(""));
    EXPECT_EQ(0u, readAll("<Alarms><Event id='1'><d/></Event></Alarms>")
                      .at(0)
                      .rfind("FATAL@1: the stream's root element must be Events, not Alarms", 0));
    EXPECT_EQ(0u, readAll("not xml").at(0).rfind("FATAL@1: ", 0));
    EXPECT_EQ(0u, readAll("<Events/><Events/>").at(0).rfind("FATAL@1: ", 0));
    const std::vector<std::string> missing = [] {
        std::vector<std::string> seen;
        Osk::EventStream stream("/nonexistent/events.xml");
        Osk::EventStream::Problem problem;
        bool hadProblem = false;
        EXPECT_FALSE(stream.next(problem, hadProblem));
        EXPECT_TRUE(hadProblem && problem.fatal);
        seen.push_back(problem.message);
        EXPECT_FALSE(stream.next(problem, hadProblem));
        EXPECT_FALSE(hadProblem);
        return seen;
    }();
    EXPECT_EQ("cannot open the event stream: No such file or directory", missing.at(0));
}

// An internal entity whose text is markup stays inside the event that uses
// it: its elements are neither taken for events nor expanded.
TEST(EventStream, ExternalEntitiesAreNeverRead) {
    char secret[] = "/tmp/event_stream_secret.XXXXXX";
    const int fd = mkstemp(secret);
    ASSERT_GE(fd, 0);
    const std::string content = "TOP-SECRET-CONTENT";
    ASSERT_EQ(static_cast<ssize_t>(content.size()), write(fd, content.data(), content.size()));
    close(fd);
    const std::vector<std::string> seen = readAll(
        std::string("<?xml version='1.0'?>\n<!DOCTYPE Events [\n<!ENTITY s SYSTEM 'file://") +
        secret + "'>\n<!ENTITY p SYSTEM '" + secret +
        "'>\n<!ENTITY i '<Event id=\"9\"><x/></Event>'>" +
        "\n]>\n<Events><Event id='1'><d>[&s;][&p;][&i;]</d></Event><Event "
        "id='2'><d>&i;</d></Event></Events>");
    unlink(secret);
    EXPECT_EQ((std::vector<std::string>{"1:[][][]", "2:"}), seen);
}

TEST(EventStream, EntityExpansionBombStopsTheStreamAfterWhatCameBefore) {
    std::string dtd = "<!ENTITY l0 'lol'>";
    for (int i = 1; i < 10; ++i) {
        std::string ten;
        for (int k = 0; k < 10; ++k) ten += "&l" + std::to_string(i - 1) + ";";
        dtd += "<!ENTITY l" + std::to_string(i) + " '" + ten + "'>";
    }
    const std::vector<std::string> seen =
        readAll("<!DOCTYPE Events [" + dtd +
                "]>\n<Events><Event id='1'><d>a</d></Event>\n"
                "<Event id='2'><d>&l9;</d></Event><Event id='3'><d>c</d></Event></Events>");
    ASSERT_EQ(2u, seen.size());
    EXPECT_EQ("1:a", seen[0]);
    EXPECT_EQ(0u, seen[1].rfind("FATAL@", 0)) << seen[1];
}

// An event over a bound, the host's or the parser's, is skipped where it
// starts and the events after it arrive with their own lines.
TEST(EventStream, EventsOverABoundAreSkippedAndTheStreamGoesOn) {
    Osk::EventScanner::Limits small;
    small.maxBytes = 200;
    small.maxNodes = 5;
    const std::string big(10000001, 'x');
    std::string deep;
    for (int i = 0; i < 300; ++i) deep += "<n>";
    for (int i = 0; i < 300; ++i) deep += "</n>";
    struct Case {
        std::string event;
        Osk::EventScanner::Limits limits;
        const char* why;
    };
    const Case cases[] = {
        {"<Event id='5'><d>" + std::string(300, 'v') + "</d></Event>", small,
         "larger than 200 bytes"},
        {"<Event id='5'>\n<d/><d/>\n<d/><d/><d/></Event>", small, "more than 5 elements"},
        {"<Event id='5' a='" + std::string(300, '>') + "'/>", small, "larger than 200 bytes"},
        {"<Event id='5'><d>" + big + "</d></Event>", {}, "a text longer than 10000000"},
        {"<Event id='5'><d a='" + big + "'/></Event>", {}, "an attribute value longer"},
        {"<Event id='5'><!--" + big + "--></Event>", {}, "a comment longer"},
        {"<Event id='5'><" + std::string(50001, 'n') + "/></Event>", {}, "a name longer"},
        {"<Event id='5'>" + deep + "</Event>", {}, "nest deeper than 256"},
    };
    for (const Case& c : cases) {
        std::string dropped;
        const std::vector<std::string> seen =
            readAll("<Events>\n<Event id='1'><d>a</d></Event>\n\n" + c.event +
                        "\n<Event id='2'><d>b</d></Event>\n<Event id='x'/>\n</Events>",
                    c.limits, true, &dropped);
        const int lines = static_cast<int>(std::count(c.event.begin(), c.event.end(), '\n'));
        EXPECT_EQ((std::vector<std::string>{"1:a@2", "skip@4", "2:b@" + std::to_string(5 + lines),
                                            "skip@" + std::to_string(6 + lines)}),
                  seen)
            << c.why;
        EXPECT_EQ(0u, dropped.rfind("event skipped: ", 0)) << dropped;
        EXPECT_NE(std::string::npos, dropped.find(c.why)) << dropped;
    }
}

TEST(EventStream, EncodingDeclarationIsHonoured) {
    EXPECT_EQ((std::vector<std::string>{"1:K\xC3\xB6ln"}),
              readAll("<?xml version='1.0' encoding='ISO-8859-1'?>"
                      "<Events><Event id='1'><d>K\xF6ln</d></Event></Events>"));
}

}  // namespace
