#pragma once

// Reading the <EmailAgent> element and binding the agent it names: the one
// way the channel, osk-host --check, osk-spool flush and an agent in front
// of another all do it, so that each of them configures an agent alike.

#include <boost/shared_ptr.hpp>
#include <functional>
#include <map>
#include <string>

#include "Osk/EmailAgent.h"

namespace Tamxml {
class Document;
class Element;
}  // namespace Tamxml

namespace Osk {
namespace EmailChannel {

typedef std::map<std::string, std::string> AgentParams;

// Told about one child of <EmailAgent> that is skipped, and why.
typedef std::function<void(const std::string& problem)> ParamProblem;

// The configuration's <EmailAgent> element (the first of them); null when
// there is none.
boost::shared_ptr<const Tamxml::Element> agentElement(
    const boost::shared_ptr<const Tamxml::Document>& config);

// The library the element names in `lib`; empty when it names none.
std::string agentLibrary(const Tamxml::Element& agent);

// The parameters of the element: every child element, whatever its name,
// with a `name` and a `value` attribute; the first of a name wins. A child
// without either, or with an empty one, is passed to `problem` and skipped.
AgentParams agentParams(const Tamxml::Element& agent, const ParamProblem& problem);

// The sendEmail of library `lib` (a bare file name is looked up beside the
// toolkit). The process opens a library once, through the toolkit's
// component loader, and keeps it. Throws the loader's exception when the
// library does not open or has no sendEmail.
SendEmailFn* bindSendEmail(const std::string& lib);

}  // namespace EmailChannel
}  // namespace Osk
