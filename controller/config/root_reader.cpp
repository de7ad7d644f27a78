#include "config/root_reader.h"

#include "config/lateral_reader.h"
#include "config/settings_reader.h"

namespace vesk::controller {

void readSettings(TableReader& root, const std::filesystem::path& folder,
                  Configuration& configuration) {
    configuration.forwarder = readForwarder(root, folder);
    readDownstream(root, configuration);
    configuration.lateral = readLateral(root, configuration);
    configuration.supervision = readSupervision(root);
    configuration.metrics = readMetrics(root);
}

}  // namespace vesk::controller
