#include "Agents/graph/GraphAgent.h"

#include <curl/curl.h>

#include "Agents/common/AgentException.h"
#include "Agents/common/oauth2/HttpsOptions.h"
#include "Agents/common/oauth2/TokenSources.h"
#include "Agents/graph/GraphTransport.h"

namespace Osk {
namespace EmailAgents {

namespace {

// Every transport of the agent shares the settings, the token and the pause.
class GraphTransports : public TransportFactory {
public:
    explicit GraphTransports(const GraphSettings& settings)
        : settings_(settings), tokens_(makeTokenSource(settings_.oauth2)) {}
    std::unique_ptr<Transport> make(const std::atomic<bool>* abort) const override {
        return std::unique_ptr<Transport>(new GraphTransport(settings_, tokens_, pause_, abort));
    }
    void writeMetrics(Tamtk::MetricsText& out) const override { tokens_.writeMetrics(out); }

private:
    const GraphSettings settings_;
    mutable TokenCache tokens_;
    mutable GraphPause pause_;
};

EngineSettings _engineSettings(const GraphSettings& graph) {
    EngineSettings settings;
    settings.agent = "Graph agent";
    settings.destination = graph.graphUrl;
    settings.spool = graph.engine.spool;
    settings.drainMs = graph.engine.drainMs;
    settings.connections = graph.engine.connections;
    settings.queue = graph.engine.queue;
    settings.retryFirst = graph.retryFirst;
    settings.retryMax = graph.retryMax;
    settings.retryAtStart = graph.retryAtStart;
    return settings;
}

}  // namespace

std::unique_ptr<DeliveryEngine> makeGraphAgent(const GraphSettings& settings) {
    return std::unique_ptr<DeliveryEngine>(
        new DeliveryEngine(_engineSettings(settings),
                           std::unique_ptr<TransportFactory>(new GraphTransports(settings))));
}

DeliveryEngine& graphAgentFor(const Params& params) {
    // libcurl (and OpenSSL, which cleans up at exit) first, so that the
    // registry and its transfers are torn down before them.
    static const bool curlReady = (GraphTransport::initialise(), true);
    (void)curlReady;
    static EngineRegistry<DeliveryEngine> registry;
    return registry.get(params, [](const Params& p) {
        return makeGraphAgent(GraphSettings::fromParams(p)).release();
    });
}

std::string probeGraph(const GraphSettings& settings) {
    GraphTransport::initialise();
    try {
        TokenCache tokens(makeTokenSource(settings.oauth2));
        tokens.get();
    } catch (const Tamtk::Exception& e) {
        return std::string("getting a token failed: ") + e.what();
    }
    std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> curl(curl_easy_init(), curl_easy_cleanup);
    if (!curl) {
        return "libcurl cannot create a handle";
    }
    CURL* c = curl.get();
    char error[CURL_ERROR_SIZE] = "";
    setHttpsOptions(c, settings.graphUrl, settings.oauth2.context);
    curl_easy_setopt(c, CURLOPT_CONNECT_ONLY, 1L);
    curl_easy_setopt(c, CURLOPT_ERRORBUFFER, error);
    const CURLcode rc = curl_easy_perform(c);
    if (rc != CURLE_OK) {
        return "reaching " + settings.graphUrl +
               " failed: " + (*error ? error : curl_easy_strerror(rc));
    }
    return "";
}

}  // namespace EmailAgents
}  // namespace Osk
