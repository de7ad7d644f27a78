#include "service/kept_forwarder.h"

#include <gtest/gtest.h>

#include "child/process_descriptor.h"
#include "notification_socket.h"
#include "temporary_folder.h"

namespace vesk::controller {
namespace {

TEST(KeptForwarder, HasNamesThatAreReadBack) {
    const KeptName name{{12, 40001}, KeptPart::output};
    EXPECT_EQ(textOf(name), "forwarder-12-40001-output");
    for (const KeptPart part : keptParts) {
        EXPECT_EQ(keptNameIn(textOf({{0, 4501}, part})), (KeptName{{0, 4501}, part}));
    }
}

TEST(KeptForwarder, RefusesEveryOtherName) {
    for (const char* const text :
         {"", "forwarder", "forwarder-0-4501", "forwarder-0-4501-", "forwarder-0-4501-inputs",
          "forwarder-0-4501-input-", "forwarder-00-4501-input", "forwarder-0-+4501-input",
          "forwarder-0-70000-input", "forwarder--4501-input", "Forwarder-0-4501-input",
          "forwarder-0-4501-input ", "listener"}) {
        EXPECT_EQ(keptNameIn(text), std::nullopt) << text;
    }
}

TEST(KeptForwarder, IsInTheStoreUntilItIsDestroyed) {
    const TemporaryFolder folder;
    const NotificationSocket manager((folder.path() / "notify").string());
    const ServiceNotification notification{manager.name()};
    const ForwarderSession session("cat", {});
    {
        const KeptForwarder kept(notification, {1, 4502}, session);
        NotificationSocket::Message message = manager.receive();
        EXPECT_EQ(message.text, "FDSTORE=1\nFDNAME=forwarder-1-4502-process");
        EXPECT_EQ(processOf(message.descriptor.get()), session.pid());
        for (const char* const part : {"output", "input"}) {
            message = manager.receive();
            EXPECT_EQ(message.text, std::string("FDSTORE=1\nFDNAME=forwarder-1-4502-") + part);
            EXPECT_TRUE(message.descriptor);
        }
        kept.removeInput();
        EXPECT_EQ(manager.receive().text, "FDSTOREREMOVE=1\nFDNAME=forwarder-1-4502-input");
        EXPECT_EQ(manager.receive().text, "");
    }
    for (const char* const part : {"process", "output", "input"}) {
        EXPECT_EQ(manager.receive().text,
                  std::string("FDSTOREREMOVE=1\nFDNAME=forwarder-1-4502-") + part);
    }
}

}  // namespace
}  // namespace vesk::controller
