#include "Agents/smtp/SmtpAgent.h"

#include "Agents/common/oauth2/TokenSources.h"
#include "Agents/smtp/Relays.h"

namespace Osk {
namespace EmailAgents {

namespace {

// Each transport is the agent's relays over connections of its own; under
// OAuth2 they all sign in with one token, fetched once per lifetime.
class RelayTransports : public TransportFactory {
public:
    explicit RelayTransports(const SmtpSettings& settings)
        : settings_(settings),
          tokens_(settings.oauth2.enabled ? new TokenCache(makeTokenSource(settings.oauth2))
                                          : nullptr) {}
    std::unique_ptr<Transport> make(const std::atomic<bool>* abort) const override {
        return std::unique_ptr<Transport>(new Relays(settings_, abort, tokens_.get()));
    }
    void writeMetrics(Tamtk::MetricsText& out) const override {
        if (tokens_) {
            tokens_->writeMetrics(out);
        }
    }

private:
    const SmtpSettings settings_;  // the sessions keep a reference to it
    const std::unique_ptr<TokenCache> tokens_;
};

EngineSettings _engineSettings(const SmtpSettings& smtp) {
    EngineSettings settings;
    settings.agent = "SMTP agent";
    settings.destination = smtp.url;
    settings.spool = smtp.spool;
    settings.drainMs = smtp.drainMs;
    settings.connections = smtp.connections;
    settings.queue = smtp.queue;
    settings.retryFirst = smtp.retryFirst;
    settings.retryMax = smtp.retryMax;
    settings.retryAtStart = smtp.retryAtStart;
    return settings;
}

}  // namespace

SmtpAgent::SmtpAgent(const SmtpSettings& settings)
    : DeliveryEngine(_engineSettings(settings),
                     std::unique_ptr<TransportFactory>(new RelayTransports(settings))) {}

SmtpAgent& smtpAgentFor(const Params& params) {
    // libcurl (and with it OpenSSL, which cleans up at exit) is set up before
    // the registry exists, so the registry and its connections are torn down
    // first.
    static const bool curlReady = (SmtpSession::initialise(), true);
    (void)curlReady;
    static EngineRegistry<SmtpAgent> registry;
    return registry.get(params,
                        [](const Params& p) { return new SmtpAgent(SmtpSettings::fromParams(p)); });
}

}  // namespace EmailAgents
}  // namespace Osk
