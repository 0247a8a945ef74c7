#include "Agents/common/oauth2/TokenCache.h"

#include <algorithm>

namespace Osk {
namespace EmailAgents {

namespace {

const std::chrono::seconds _maxMargin{300};

}  // namespace

TokenCache::TokenCache(std::unique_ptr<TokenSource> source) : source_(std::move(source)) {}

std::string TokenCache::get() {
    std::unique_lock<std::mutex> lock(mutex_);
    Clock::time_point now;
    for (;;) {
        now = Clock::now();
        if (!token_.empty() && now < renewAt_) {
            return token_;
        }
        if (!fetching_) {
            break;
        }
        if (!token_.empty() && now < expires_) {
            return token_;
        }
        // Wait for the fetch under way and share its outcome.
        const unsigned long seen = fetches_;
        fetched_.wait(lock, [&] { return fetches_ != seen; });
        if (failure_) {
            std::rethrow_exception(failure_);
        }
    }
    fetching_ = true;
    lock.unlock();
    Token fresh;
    std::exception_ptr failure;
    try {
        fresh = source_->fetch();
    } catch (...) {
        failure = std::current_exception();
    }
    lock.lock();
    fetching_ = false;
    ++fetches_;
    failures_ += failure ? 1 : 0;
    failure_ = failure;
    if (!failure) {
        // The lifetime counts from the request, not from its answer.
        token_ = fresh.value;
        expires_ = now + fresh.lifetime;
        const Clock::duration lifetime = fresh.lifetime;
        renewAt_ = expires_ - std::min<Clock::duration>(_maxMargin, lifetime / 10);
    } else if (!token_.empty() && Clock::now() < expires_) {
        // The old token still works: use it, and try again halfway to its end
        // rather than at every call while the endpoint is down.
        now = Clock::now();
        renewAt_ = now + (expires_ - now) / 2;
        failure_ = nullptr;
    } else {
        token_.clear();
    }
    fetched_.notify_all();
    if (failure_) {
        std::rethrow_exception(failure_);
    }
    return token_;
}

void TokenCache::invalidate(const std::string& token) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (token == token_) {
        token_.clear();
    }
}

bool TokenCache::signIn(const std::function<bool(const std::string& token)>& attempt) {
    const std::string first = get();
    if (attempt(first)) {
        return true;
    }
    invalidate(first);
    return attempt(get());
}

TokenCache::Counts TokenCache::counts() {
    std::lock_guard<std::mutex> lock(mutex_);
    Counts counts;
    counts.fetches = fetches_;
    counts.failures = failures_;
    return counts;
}

void TokenCache::writeMetrics(Tamtk::MetricsText& out) {
    const Counts now = counts();
    out.single("email_agent_token_fetches_total", "counter",
               "Requests for an OAuth2 access token, answered or not.",
               static_cast<double>(now.fetches));
    out.single("email_agent_token_fetch_failures_total", "counter",
               "Requests for an OAuth2 access token that brought none.",
               static_cast<double>(now.failures));
}

}  // namespace EmailAgents
}  // namespace Osk
