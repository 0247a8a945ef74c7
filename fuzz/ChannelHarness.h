#pragma once

// What the configuration and event-rendering targets share: a channel that
// counts its reports instead of printing them, the recording agent they
// bind (opened here the way the channel opens it), and event documents.

#include <cstddef>
#include <set>
#include <string>

#include "Channels/email/email_channel.h"

namespace fuzzing {

struct CountingChannel : Osk::email_channel {
    CountingChannel();
    std::size_t reports = 0;
};

// The recording email agent, a module built beside the fuzz targets.
class Agent {
  public:
    static const Agent& instance();
    static const char* path();
    std::size_t count() const;
    std::string message(std::size_t i) const;
    void reset() const;

  private:
    Agent();
    void* lib_;
};

// A configuration or event document from fuzz bytes; null when they are
// not well-formed XML.
boost::shared_ptr<const Tamxml::Document> parseOrNull(const char* data, std::size_t size);

// Renders `event` and checks what came of it: do_log returns normally; an
// event of no group sends nothing and reports nothing; an event of a group
// sends exactly one mail or reports why not (nothing is lost silently); a
// sent mail has the shape of checkMail, with `expectedExtraHeaders` as its
// extra headers (not checked when null).
void logAndCheck(CountingChannel& channel, const boost::shared_ptr<Osk::ChannelEvent>& event,
                 const std::set<std::string>* expectedExtraHeaders);

}  // namespace fuzzing
