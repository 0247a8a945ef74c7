#pragma once

// osk-host --render: a run whose mail is printed for a person instead of
// delivered. The configuration's <EmailAgent> is pointed, in memory only, at
// the render agent (Agents/render), so the channel renders, encodes and
// hands over each mail exactly as in a run, while the configured agent is
// never loaded: nothing is sent, written or connected.

#include <boost/shared_ptr.hpp>

namespace Tamxml {
class Document;
}  // namespace Tamxml

namespace Osk {

// The library put in place of the configured agent, found beside the toolkit.
extern const char* const renderAgent;

// Points the first <EmailAgent> of `config` at the render agent; its
// parameters stay and are ignored. Without an <EmailAgent> the document is
// left alone, and the channel refuses it as a run would.
void renderInstead(const boost::shared_ptr<const Tamxml::Document>& config);

}  // namespace Osk
