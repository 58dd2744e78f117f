// orvelctl links: how the client stands with the services.
#pragma once

#include "Commands.h"
#include "orvel/Links.h"

namespace orvelctl {

// A link as the members of an object: service, state, and what the client holds of it.
Json objectOf(const orvel::service_apis::Link& link);

// Prints one link.
void showLink(Session& session, const orvel::service_apis::Link& link);

void addLinkCommands(Commands& commands);

}  // namespace orvelctl
