#include <pelm/analytics/solvan.hpp>
#include <pelm/analytics/solvan_texts.hpp>

#include <gtest/gtest.h>

namespace pelm {
namespace {

TEST(Solvan, StoreNamesFallBackToTheNumber) {
    EXPECT_EQ(Solvan::storeName(1), "Talstraße Galerie");
    EXPECT_EQ(Solvan::storeName(904), "Test - SOLVAN");
    EXPECT_EQ(Solvan::storeName(905), "Reserve");
    for (const auto n : {4, 0, -3, 906}) EXPECT_EQ(Solvan::storeName(n), std::to_string(n));
}

TEST(Solvan, MerchandiseGroupRangesAreClosedAtBothEnds) {
    EXPECT_EQ(Solvan::merchandiseGroupName(1), "Eingangsbereich");
    EXPECT_EQ(Solvan::merchandiseGroupName(2), "Eingangsbereich");
    EXPECT_EQ(Solvan::merchandiseGroupName(3), "Kassa");
    EXPECT_EQ(Solvan::merchandiseGroupName(8), "Kassa");
    EXPECT_EQ(Solvan::merchandiseGroupName(23), "Süßigkeiten");
    EXPECT_EQ(Solvan::merchandiseGroupName(24), "Süßigkeiten");
    EXPECT_EQ(Solvan::merchandiseGroupName(905), "Test - UseCase Gutschein 3");
    for (const auto n : {0, -1, 28, 900, 906}) EXPECT_EQ(Solvan::merchandiseGroupName(n), std::to_string(n));
    // The umlauts and the sharp s are single UTF-8 characters.
    EXPECT_EQ(Solvan::merchandiseGroupName(11), "K\xC3\xA4se");
    EXPECT_EQ(Solvan::merchandiseGroupName(17), "Tiefk\xC3\xBChlung");
    EXPECT_EQ(Solvan::merchandiseGroupName(24),
              "S\xC3\xBC\xC3\x9F"
              "igkeiten");
}

TEST(Solvan, LabelsJoinTheTextsUnchanged) {
    EXPECT_EQ(Solvan::eventLabelByBeacon("f7826da6-aaaa", "12", "3"), "f7826da6-aaaa+12+3");
    EXPECT_EQ(Solvan::eventLabelByBeacon("", "", ""), "++");
}

}  // namespace
}  // namespace pelm
