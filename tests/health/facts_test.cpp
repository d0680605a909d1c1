#include "health/facts.h"

#include <gtest/gtest.h>

#include "service/names.h"

namespace health {
namespace {

using Owner = Companion::Owner;

TEST(Facts, TellWhoseACompanionIs) {
    const std::string root = machine::kIsWindows ? "C:\\here" : "/here";
    const Installation here = *Installation::of(Installation::in(Installation::in(root, "bin"), "quorkeri_health"));
    constexpr uint64_t kBirth = 50;
    struct Row {
        const char* what;
        std::string image; // the companion's; empty: not told
        uint64_t parentBirth;
        std::string parentName;
        std::string parentImage;
        Owner owner;
    };
    const std::string service = machine::kServiceFile;
    for (const auto& [what, image, parentBirth, parentName, parentImage, owner] :
         {Row{"child of the service", here.companion, 10, service, here.service, Owner::Service},
          Row{"child of a service, place not told", here.companion, 10, service, "", Owner::Service},
          Row{"the parent's id is another's by now", here.companion, 60, service, here.service, Owner::Nobody},
          Row{"started by hand", here.companion, 10, "shell", "shell", Owner::Nobody},
          Row{"elsewhere", "/there/quorkeri_wrapper.exe", 10, service, here.service, Owner::Other},
          Row{"nothing told", "", 10, service, "", Owner::Service},
          Row{"the service's place told", "", 10, service, here.service, Owner::Service},
          Row{"another service's", "", 10, service, "/there/" + service, Owner::Other},
          Row{"nothing told, and no service", "", 60, service, "", Owner::Other}}) {
        const Process companion{2, 1, kBirth, 0, service::kCompanionName, image};
        const Process parent{1, 0, parentBirth, 0, parentName, parentImage};
        EXPECT_EQ(ownerOf(companion, here, {companion, parent}), owner) << what;
    }
    const Process companion{2, 1, kBirth, 0, service::kCompanionName, here.companion};
    EXPECT_EQ(ownerOf(companion, here, {companion}), Owner::Nobody) << "the parent has ended";
}

TEST(Facts, KnowTheManagersServiceFromOneStartedByHand) {
    const std::string root = machine::kIsWindows ? "C:\\here" : "/here";
    const Installation here = *Installation::of(Installation::in(Installation::in(root, "bin"), "quorkeri_health"));
    const Process managed{1, 0, 1, 0, machine::kServiceFile, here.service};
    const Process byHand{2, 0, 2, 0, machine::kServiceFile, here.service};
    const Process nameless{3, 0, 3, 0, machine::kServiceFile, ""};
    const Process other{4, 0, 4, 0, machine::kServiceFile, "/there/" + std::string(machine::kServiceFile)};
    const auto idOf = [&](uint32_t registered, const std::vector<Process>& all) {
        Registration registration;
        registration.processId = registered;
        const auto found = findService(here, registration, all);
        return found ? found->id : 0;
    };
    EXPECT_EQ(idOf(1, {byHand, managed, other}), 1U);
    EXPECT_EQ(idOf(0, {other, byHand}), 2U);
    EXPECT_EQ(idOf(3, {nameless}), 3U);
    EXPECT_EQ(idOf(0, {nameless, other}), 0U);
    EXPECT_EQ(idOf(4, {other}), 0U);
    EXPECT_EQ(idOf(9, {}), 0U) << "the manager has not noticed the end";
    const Process crashed{5, 0, 5, 0, machine::kServiceFile, here.service};
    const Process watcher{6, 5, 6, 0, machine::kServiceFile, here.service};
    EXPECT_EQ(idOf(5, {watcher, crashed}), 5U);
    EXPECT_EQ(idOf(0, {watcher, crashed}), 5U) << "in the foreground";
}

TEST(Facts, ReadTheProgramOutOfARegisteredCommand) {
    EXPECT_EQ(programOf(R"(C:\a b\x.exe)"), R"(C:\a b\x.exe)");
    EXPECT_EQ(programOf(R"("C:\a b\x.exe" jitd)"), R"(C:\a b\x.exe)");
    EXPECT_EQ(programOf(""), "");
}

} // namespace
} // namespace health
