// Which provider reported a device, as hxf and hxfd read it from the providers' device lists
// (tools/common/DeviceOwners.h).
#include "DeviceOwners.h"

#include <gtest/gtest.h>

namespace hxf_tool {
namespace {

Device Of(const std::string& id, const std::string& provider) {
  Device device;
  device.service = "lights";
  device.id = id;
  device.ui_meta = provider.empty() ? "{}" : "{\"provider\":\"" + provider + "\"}";
  return device;
}

std::set<std::string> Set(std::initializer_list<std::string> names) { return names; }

TEST(DeviceOwners, AProvidersNewListReplacesItsOldOne) {
  CDeviceOwners owners;
  owners.Listed({Of("lamp-1", "sim"), Of("ceiling-1", "sim")});
  owners.Listed({Of("lamp-1", "sim")});
  EXPECT_EQ(owners.OwnersOf("lamp-1"), Set({"sim"}));
  EXPECT_TRUE(owners.OwnersOf("ceiling-1").empty());
}

TEST(DeviceOwners, ADeviceOfTwoProvidersHasBoth) {
  CDeviceOwners owners;
  owners.Listed({Of("lamp-1", "sim")});
  owners.Listed({Of("lamp-1", "lamps")});
  EXPECT_EQ(owners.OwnersOf("lamp-1"), Set({"lamps", "sim"}));
}

TEST(DeviceOwners, ADepartureForgetsTheDeviceOfItsProviderOnly) {
  CDeviceOwners owners;
  owners.Found(Of("lamp-1", "sim"));
  owners.Found(Of("lamp-1", "lamps"));
  Device left = Of("lamp-1", "");
  left.ui_meta = "{\"presence\":\"left\",\"device\":{\"provider\":\"lamps\"}}";
  owners.Found(left);
  EXPECT_EQ(owners.OwnersOf("lamp-1"), Set({"sim"}));
}

TEST(DeviceOwners, ADeviceWithoutAProviderHasNone) {
  CDeviceOwners owners;
  owners.Listed({Of("lamp-1", "")});
  EXPECT_TRUE(owners.OwnersOf("lamp-1").empty());
}

TEST(DeviceOwners, ListsAreCompleteOnceEveryExpectedProviderAnswered) {
  CProviderLists lists({"sim", "strips"});
  lists.Add({Of("lamp-1", "sim"), Of("ceiling-1", "sim")});
  EXPECT_FALSE(lists.Complete());
  lists.Add({Of("strip-1", "strips")});
  EXPECT_TRUE(lists.Complete());
  std::vector<std::string> ids;
  for (const Device& device : lists.Devices()) ids.push_back(device.id);
  EXPECT_EQ(ids, (std::vector<std::string>{"lamp-1", "ceiling-1", "strip-1"}));
}

TEST(DeviceOwners, WithoutExpectedProvidersTheFirstListCompletes) {
  CProviderLists lists;
  EXPECT_FALSE(lists.Complete());
  lists.Add({Of("lamp-1", "sim")});
  EXPECT_TRUE(lists.Complete());
}

TEST(DeviceOwners, ARequestGoesToTheOwnersServiceOrIsRefusedNamingBoth) {
  std::string conflict;
  EXPECT_EQ(RequestTarget("lights", "lamp-1", Set({"sim"}), &conflict), "lights@sim");
  EXPECT_EQ(RequestTarget("lights", "lamp-9", Set({}), &conflict), "lights");
  EXPECT_EQ(conflict, "");
  EXPECT_EQ(RequestTarget("lights", "lamp-1", Set({"lamps", "sim"}), &conflict), "");
  EXPECT_EQ(conflict,
            "device lamp-1 of lights is reported by several providers (lamps, sim): load only "
            "one of them");
}

}  // namespace
}  // namespace hxf_tool
