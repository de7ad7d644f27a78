#include "context/forwarder_context.h"

#include "datapath/wire/layout.h"
#include "net/endpoint_manager.h"

namespace vesk {

ForwarderContext::ForwarderContext(int framingVersion, Ipv4Source source)
    : framing(framingOfVersion(framingVersion)),
      ipv4Source(source),
      endpointManager(std::make_shared<EndpointManager>()) {}

ForwarderContext::~ForwarderContext() = default;

}  // namespace vesk
