#include <gtest/gtest.h>

#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "CException.h"
#include "CPropertyDescription.h"
#include "IEndpointHelper.h"
#include "IEndpointListHelper.h"
#include "IPropertyListHelper.h"
#include "LogCapture.h"
#include "TestProvider.h"

using namespace HXFramework::Core;  // NOLINT
using HXFramework::CException;
using HXFramework::Test::LogCapture;
using HXFramework::Test::MakeEndpoint;
using HXFramework::Test::Str;

namespace {
std::string P(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}
}  // namespace

TEST(PropertyListHelper, CopiesOnCreationAndLogsCreationAndDestructionOfItsCopy) {
  hxf_property_list_h list = hxf_property_list_create(Str("set"));
  LogCapture capture;
  void* copy = nullptr;
  {
    auto wrapper = IPropertyListHelper::Create(list);
    copy = wrapper->GetHandle();
    EXPECT_NE(copy, list);
    hxf_property_list_destroy(list);  // the application's own, right after the call
    EXPECT_EQ(wrapper->GetName(), "set");
  }
  auto created = capture.Find("pelnor (core)property list created for");
  EXPECT_EQ(created.priority, DLOG_ERROR);
  EXPECT_NE(created.text.find(")  pelnor (core)property list created for set(" + P(copy) + ")\n"),
            std::string::npos);
  EXPECT_TRUE(capture.Contains(")  pelnor (core)property list destroy for set(" + P(copy) + ")\n"));
}

TEST(PropertyListHelper, ANullListFailsWithAStandardException) {
  LogCapture capture;
  try {
    IPropertyListHelper::Create(nullptr);
    FAIL() << "no exception";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "failed to create list");
  }
  EXPECT_TRUE(capture.Contains(")  failed to copy list\n"));
}

TEST(PropertyListHelper, PushAndSetNameFailuresCarryTheLibrarysCode) {
  hxf_property_list_h list = hxf_property_list_create(Str("set"));
  auto wrapper = IPropertyListHelper::Create(list);
  try {
    wrapper->Push(nullptr, HXF_ERROR_NONE);
    FAIL() << "no exception";
  } catch (const CException& e) {
    EXPECT_EQ(e.code, HXF_ERROR_INVALID_PARAMETER);
    EXPECT_STREQ(e.what(), "CPropertyListHelper::Push is failed(error:4)");
  }
  wrapper->SetName("get");
  EXPECT_EQ(wrapper->GetName(), "get");
  hxf_property_h p = hxf_property_create_int(Str("volume"), 7);
  wrapper->Push(p, HXF_ERROR_NONE);
  hxf_property_destroy(p);
  EXPECT_FALSE(wrapper->Empty());
  EXPECT_NE(wrapper->Find("volume"), nullptr);
  EXPECT_EQ(wrapper->GetNext(wrapper->GetFirst()), nullptr);
  void* popped = nullptr;
  hxf_error error = HXF_ERROR_TIMED_OUT;
  EXPECT_EQ(wrapper->Pop(&popped, &error), HXF_ERROR_NONE);
  EXPECT_EQ(error, HXF_ERROR_NONE);
  hxf_property_destroy(popped);
  hxf_property_list_destroy(list);
}

TEST(EndpointHelper, ANullEndpointIsCreateFailed) {
  try {
    IEndpointHelper::Create(nullptr);
    FAIL() << "no exception";
  } catch (const CException& e) {
    EXPECT_EQ(e.code, HXF_ERROR_CREATE_FAILED);
    EXPECT_STREQ(e.what(), "endpoint_h is invalid(error:3)");
  }
}

TEST(EndpointHelper, ReadsAndWritesItsOwnCopy) {
  hxf_endpoint_h endpoint = MakeEndpoint("lights", "lamp");
  auto wrapper = IEndpointHelper::Create(endpoint);
  hxf_endpoint_destroy(endpoint);
  EXPECT_EQ(wrapper->GetServiceName(), "lights");
  EXPECT_EQ(wrapper->GetDeviceId(), "lamp");
  EXPECT_EQ(wrapper->SetInterfaceName("wifi"), HXF_ERROR_NONE);
  EXPECT_EQ(wrapper->SetInterfaceType("ip"), HXF_ERROR_NONE);
  EXPECT_EQ(wrapper->SetAddress("10.0.0.9"), HXF_ERROR_NONE);
  EXPECT_EQ(wrapper->SetDeviceId("lamp-2"), HXF_ERROR_NONE);
  EXPECT_EQ(wrapper->SetDeviceName("Lamp"), HXF_ERROR_NONE);
  EXPECT_EQ(wrapper->SetUIMeta("{}"), HXF_ERROR_NONE);
  EXPECT_EQ(wrapper->GetInterfaceName(), "wifi");
  EXPECT_EQ(wrapper->GetInterfaceType(), "ip");
  EXPECT_EQ(wrapper->GetAddress(), "10.0.0.9");
  EXPECT_EQ(wrapper->GetDeviceId(), "lamp-2");
  EXPECT_EQ(wrapper->GetDeviceName(), "Lamp");
  EXPECT_EQ(wrapper->GetUIMeta(), "{}");
}

TEST(EndpointListHelper, ANullListFailsWithAStandardException) {
  LogCapture capture;
  EXPECT_THROW(IEndpointListHelper::Create(nullptr), std::invalid_argument);
  EXPECT_TRUE(capture.Contains(")  failed to copy list\n"));
}

TEST(EndpointListHelper, WorksOnItsOwnCopy) {
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  hxf_endpoint_h endpoint = MakeEndpoint("lights", "lamp");
  hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE);
  auto wrapper = IEndpointListHelper::Create(list);
  hxf_endpoint_list_destroy(list);
  EXPECT_FALSE(wrapper->Empty());
  EXPECT_NE(wrapper->Find("lamp"), nullptr);
  EXPECT_EQ(wrapper->Push(endpoint, HXF_ERROR_NONE), HXF_ERROR_NONE);
  EXPECT_EQ(wrapper->Push(nullptr, HXF_ERROR_NONE),
            HXF_ERROR_INVALID_PARAMETER);  // passed back, no throw
  EXPECT_EQ(wrapper->GetNext(wrapper->GetNext(wrapper->GetFirst())), nullptr);
  hxf_endpoint_destroy(endpoint);
}

TEST(PropertyDescription, FormattedDescriptionPrintsTheNameTwiceAndTheRange) {
  CPropertyDescription description("volume", "level", HXF_PROPERTY_TYPE_INT, -5, 100);
  std::istringstream text(description.GetFormatedDescription());
  std::vector<std::string> lines;
  for (std::string line; std::getline(text, line);) lines.push_back(line);
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], std::string(55, '-'));
  EXPECT_EQ(lines[1], "property_name         : volume");
  EXPECT_EQ(lines[2], "property_desrcription : volume");
  EXPECT_EQ(lines[3], "min                   : -5");
  EXPECT_EQ(lines[4], "max                   : 100");
}

TEST(PropertyDescription, AccessorsReturnTheFieldsInsideCallTraces) {
  LogCapture capture;
  CPropertyDescription description("volume", "level", HXF_PROPERTY_TYPE_INT, -5, 100);
  EXPECT_EQ(description.GetPropertyName(), "volume");
  EXPECT_EQ(description.GetDescription(), "level");
  EXPECT_EQ(description.GetType(), HXF_PROPERTY_TYPE_INT);
  EXPECT_EQ(description.GetMin(), -5);
  EXPECT_EQ(description.GetMax(), 100);
  EXPECT_TRUE(capture.Contains("CPropertyDescription : GetMax("));
  EXPECT_EQ(capture.Find("GetDescription(").priority, DLOG_INFO);
}
