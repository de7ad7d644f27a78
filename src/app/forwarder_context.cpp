#include "app/forwarder_context.h"

#include "datapath/wire_layout.h"
#include "net/endpoint_manager.h"
#include "tasks/periodic_task.h"

namespace vesk {

ForwarderContext::ForwarderContext(int framingVersion)
    : framing(framingOfVersion(framingVersion)),
      endpointManager(std::make_shared<EndpointManager>()) {}

ForwarderContext::~ForwarderContext() = default;

}  // namespace vesk
