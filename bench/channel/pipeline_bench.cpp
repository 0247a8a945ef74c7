// One event through the whole channel (do_log with an agent that only
// counts) against its floor: the bare libxml2, libxslt, iconv and Base64
// work the same event needs, written straight against the libraries with
// everything that can be kept across events kept. Parsing the event is the
// host's work and is left out of both.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <iconv.h>
#include <libxml/xpath.h>
#include <libxslt/transform.h>
#include <libxslt/xsltutils.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>
#include <vector>

#include "Channels/email/email_channel.h"
#include "NetToolkit/Base64.h"
#include "alert_sample.h"

namespace {

const unsigned long kEventId = 4711;
const char* const kLocale = "en_GB";
const char* const kCharset = "ISO-8859-1";

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "pipeline_bench: %s\n", what.c_str());
    std::exit(1);
}

// 3 XPath tokens, 1 stylesheet token, 2 extra headers (one channel-wide, one
// of the group), ISO-8859-1 whatever the locale, 3 recipients.
// The agent keeps nothing (mode "count") unless `keep`, when checkSameWork()
// reads the mail back.
std::string configuration(bool keep = false) {
    std::string recipients;
    for (const auto& to : AlertSample::recipients()) {
        recipients += "<Recipient value='" + to.asPlainString(false) + "'/>";
    }
    const auto headers = AlertSample::headers();
    const auto severity = headers.begin();
    const auto site = std::next(severity);
    return std::string("<?xml version='1.0' encoding='UTF-8'?><Channel><Default>") +
           "<RecipientList>" + recipients + "</RecipientList>" + "<Sender name='" +
           AlertSample::senderName() + "' email='" + AlertSample::sender() + "'/>" +
           "<Subject value='" + AlertSample::subject() + "'/>" +
           "<Charset enabled='yes' locale='' charset='" + kCharset + "'/>" +
           "<ExtraHeaders><Header name='" + severity->first + "' default='" + severity->second +
           "'/></ExtraHeaders></Default><Tokens>" + "<Token name='host' xpath='" +
           AlertSample::hostPath() + "'/>" + "<Token name='service' xpath='" +
           AlertSample::servicePath() + "'/>" + "<Token name='text' xpath='" +
           AlertSample::textPath() + "'/>" + "<Token name='attributes'>" +
           AlertSample::stylesheet() + "</Token></Tokens>" + "<EventGroup enabled='yes'><Message>" +
           AlertSample::body(true) + "</Message>" + "<ExtraHeaders><Header name='" + site->first +
           "' default='" + site->second + "'/></ExtraHeaders>" + "<Event id='" +
           std::to_string(kEventId) + "' enabled='yes'/></EventGroup>" + "<EmailAgent lib='" +
           FAKE_AGENT_PATH + "'>" + (keep ? "" : "<Param name='mode' value='count'/>") +
           "</EmailAgent></Channel>";
}

boost::shared_ptr<const Tamxml::Document> parse(const std::string& text) {
    return Tamxml::Document::fromMemory(text.data(), text.size());
}

struct FakeAgent {
    FakeAgent() : lib(dlopen(FAKE_AGENT_PATH, RTLD_NOW)) {
        if (lib == nullptr)
            fail(dlerror());
    }
    template <class Fn>
    Fn* get(const char* name) const {
        void* symbol = dlsym(lib, name);
        if (symbol == nullptr)
            fail(name);
        return reinterpret_cast<Fn*>(symbol);
    }
    std::size_t calls() const { return get<std::size_t()>("testAgentCallCount")(); }
    std::string message(std::size_t i) const {
        return get<const char*(std::size_t)>("testAgentMessage")(i);
    }
    void reset() const { get<void()>("testAgentReset")(); }
    void* lib;
};

// A configured channel that fails loudly on any report.
struct Channel : Osk::email_channel {
    explicit Channel(bool keep = false) {
        setenv("TAM_LANG", kLocale, 1);
        set_reporter([](const Tamlog::severity_mask&, const std::string& text) {
            fail("the channel reported: " + text);
        });
        if (!do_configure(Osk::ChannelCfg(parse(configuration(keep))))) {
            fail("configuration refused");
        }
    }
};

boost::shared_ptr<Osk::ChannelEvent> makeEvent() {
    return boost::shared_ptr<Osk::ChannelEvent>(
        new Osk::ChannelEvent(kEventId, parse(AlertSample::event())));
}

// The floor: the libraries' work for one event, nothing else.
class Floor {
public:
    explicit Floor(boost::shared_ptr<const Tamxml::Document> event) : event_(event) {
        doc_ = event_->get();
        for (const char* path :
             {AlertSample::hostPath(), AlertSample::servicePath(), AlertSample::textPath()}) {
            paths_.push_back(xmlXPathCompile(reinterpret_cast<const xmlChar*>(path)));
        }
        context_ = xmlXPathNewContext(doc_);
        xmlXPathContextSetCache(context_, 1, -1, 0);
        styleDoc_ = parse(AlertSample::stylesheet());
        style_ = xsltParseStylesheetDoc(xmlCopyDoc(styleDoc_->get(), 1));
        localeParam_ = std::string("'") + kLocale + "'";
        iconv_ = iconv_open(kCharset, "UTF-8");
        if (iconv_ == reinterpret_cast<iconv_t>(-1) || style_ == nullptr || context_ == nullptr) {
            fail("floor set-up");
        }
        // The template cut at its placeholders: 4 pieces of text around them.
        const std::string text = AlertSample::body(true);
        std::string::size_type from = 0;
        for (int i = 0; i < 4; ++i) {
            const std::string::size_type open = text.find('%', from);
            pieces_.push_back(text.substr(from, open - from));
            from = text.find('%', open + 1) + 1;
        }
        pieces_.push_back(text.substr(from));
        const auto headers = AlertSample::headers();
        fixed_ = {AlertSample::senderName(), AlertSample::subject(), headers.begin()->second,
                  std::next(headers.begin())->second};
    }
    ~Floor() {
        iconv_close(iconv_);
        xsltFreeStylesheet(style_);
        xmlXPathFreeContext(context_);
        for (xmlXPathCompExprPtr p : paths_) xmlXPathFreeCompExpr(p);
    }

    // Leaves the Base64 of the converted body in base64().
    void run() {
        body_.clear();
        for (std::size_t i = 0; i < paths_.size(); ++i) {
            body_ += pieces_[i];
            appendValue(paths_[i]);
        }
        body_ += pieces_[3];
        appendTransform();
        body_ += pieces_[4];

        for (const std::string& text : fixed_) {
            convert(text);
        }
        const std::size_t length = convert(body_);
        encoded_.resize(Tamnet::base64Length(length));
        Tamnet::base64(converted_.data(), converted_.data() + length, &encoded_[0]);
    }
    const std::string& base64() const { return encoded_; }

private:
    void appendValue(xmlXPathCompExprPtr path) {
        context_->node = reinterpret_cast<xmlNodePtr>(doc_);
        xmlXPathObjectPtr result = xmlXPathCompiledEval(path, context_);
        if (result->nodesetval != nullptr && result->nodesetval->nodeNr > 0) {
            const xmlNode* node = result->nodesetval->nodeTab[0];
            const xmlNode* child = node->children;
            if (child != nullptr && child->next == nullptr && child->type == XML_TEXT_NODE) {
                body_ += reinterpret_cast<const char*>(child->content);  // read in place
            } else {
                xmlChar* text = xmlNodeGetContent(node);
                body_ += reinterpret_cast<const char*>(text);
                xmlFree(text);
            }
        }
        xmlXPathFreeObject(result);
    }

    void appendTransform() {
        const char* params[] = {"locale", localeParam_.c_str(), nullptr};
        xmlDocPtr result = xsltApplyStylesheet(style_, doc_, params);
        xmlChar* text = nullptr;
        int length = 0;
        xsltSaveResultToString(&text, &length, result, style_);
        body_.append(reinterpret_cast<const char*>(text), static_cast<std::size_t>(length));
        xmlFree(text);
        xmlFreeDoc(result);
    }

    std::size_t convert(const std::string& text) {
        if (converted_.size() < 2 * text.size())
            converted_.resize(2 * text.size());
        iconv(iconv_, nullptr, nullptr, nullptr, nullptr);
        char* in = const_cast<char*>(text.data());
        size_t inLeft = text.size();
        char* out = &converted_[0];
        size_t outLeft = converted_.size();
        if (iconv(iconv_, &in, &inLeft, &out, &outLeft) == static_cast<size_t>(-1)) {
            fail("floor conversion");
        }
        return converted_.size() - outLeft;
    }

    boost::shared_ptr<const Tamxml::Document> event_;
    xmlDocPtr doc_;
    std::vector<xmlXPathCompExprPtr> paths_;
    xmlXPathContextPtr context_;
    boost::shared_ptr<const Tamxml::Document> styleDoc_;
    xsltStylesheetPtr style_;
    std::string localeParam_;
    iconv_t iconv_;
    std::vector<std::string> pieces_;
    std::vector<std::string> fixed_;
    std::string body_;
    std::string converted_;
    std::string encoded_;
};

void BM_Pipeline_Channel(benchmark::State& state) {
    Channel channel;
    const FakeAgent agent;
    const auto event = makeEvent();
    const unsigned long before = agent.calls();
    for (auto _ : state) {
        channel.do_log(event);
    }
    if (agent.calls() - before != static_cast<unsigned long>(state.iterations())) {
        state.SkipWithError("the agent did not get every event");
    }
    state.SetItemsProcessed(state.iterations());
}

void BM_Pipeline_Floor(benchmark::State& state) {
    const auto event = makeEvent();
    Floor floor(event->document());
    for (auto _ : state) {
        floor.run();
        benchmark::DoNotOptimize(floor.base64().data());
    }
    state.SetItemsProcessed(state.iterations());
}

// The thread's CPU time in nanoseconds: time taken by other processes on a
// busy machine is not counted.
double cpuNanoseconds() {
    timespec now;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
    return 1e9 * static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec);
}

// Channel and floor in alternation, a few events each, so that both meet the
// same state of a shared machine: the median of the rounds' ratios.
void BM_Pipeline_ChannelOverFloor(benchmark::State& state) {
    Channel channel;
    const auto event = makeEvent();
    Floor floor(event->document());
    const int eventsPerRound = 16;
    std::vector<double> ratios;
    for (auto _ : state) {
        const double start = cpuNanoseconds();
        for (int i = 0; i < eventsPerRound; ++i) {
            channel.do_log(event);
        }
        const double middle = cpuNanoseconds();
        for (int i = 0; i < eventsPerRound; ++i) {
            floor.run();
            benchmark::DoNotOptimize(floor.base64().data());
        }
        ratios.push_back((middle - start) / (cpuNanoseconds() - middle));
    }
    std::nth_element(ratios.begin(), ratios.begin() + ratios.size() / 2, ratios.end());
    state.counters["ratio"] = ratios[ratios.size() / 2];
}

// The floor must do the channel's work: the same body, converted the same
// way, must come out of both.
void checkSameWork() {
    Channel channel(true);
    const FakeAgent agent;
    const auto event = makeEvent();
    agent.reset();
    channel.do_log(event);
    if (agent.calls() != 1)
        fail("the channel sent no mail");
    const std::string mail = agent.message(0);
    const std::string::size_type blank = mail.find("\n\n");
    if (blank == std::string::npos)
        fail("the channel sent no mail");
    std::string body;
    for (char c : mail.substr(blank + 2)) {
        if (c != '\n')
            body += c;
    }
    Floor floor(event->document());
    floor.run();
    if (body != floor.base64()) {
        fail("the floor and the channel give different bodies");
    }
}

}  // namespace

BENCHMARK(BM_Pipeline_Channel)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Pipeline_Floor)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Pipeline_ChannelOverFloor)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
    checkSameWork();
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
        return 1;
    }
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
