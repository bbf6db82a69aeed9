#include "velox/system/velSysInfo.hpp"

#include <gtest/gtest.h>

#include <algorithm>

#include "tests/examples/run_example.hpp"
#include "velox/foundation/velStringUtils.hpp"
#include "velox/runtime/velException.hpp"
#include "velox/runtime/velFormat.hpp"
#include "velox/runtime/velRegistryKey.hpp"

namespace velox {
namespace {

using enum TOSVersion;
using enum TOSVersionEx;

TOSFacts NT(uint32_t Major, uint32_t Minor, uint8_t ProductType, uint16_t SuiteMask = 0) {
  TOSFacts facts;
  facts.PlatformId = VER_PLATFORM_WIN32_NT;
  facts.MajorVersion = Major;
  facts.MinorVersion = Minor;
  facts.Extended = true;
  facts.ProductType = ProductType;
  facts.SuiteMask = SuiteMask;
  return facts;
}

// ---------------------------------------------------------------------------------------- versions

TEST(SysInfo, VersionFollowsFromItsNumberAndTheKindOfProduct) {
  const struct {
    uint32_t Major, Minor;
    TOSVersion Workstation, Server;
  } cases[] = {
      {10, 0, osTen, os2016},
      {6, 3, osEightOne, os2012R2},
      {6, 2, osEight, os2012},
      {6, 1, osSeven, os2008R2},
      {6, 0, osVista, osLonghorn},
      {5, 2, os2003, os2003},
      {5, 1, osXP, osXP},
      {5, 0, os2000, os2000},
      {4, 0, osNT, osNT},
      {3, 51, osNT, osNT},
      {5, 3, osUnknown, osUnknown},
      {6, 4, osUnknown, osUnknown},
      {10, 1, osUnknown, osUnknown},
      {11, 0, osUnknown, osUnknown},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Format("%u.%u", c.Major, c.Minor));
    EXPECT_EQ(DescribeOS(NT(c.Major, c.Minor, VER_NT_WORKSTATION)).Version, c.Workstation);
    EXPECT_EQ(DescribeOS(NT(c.Major, c.Minor, VER_NT_SERVER)).Version, c.Server);
    EXPECT_EQ(DescribeOS(NT(c.Major, c.Minor, VER_NT_DOMAIN_CONTROLLER)).Version, c.Server);
  }
}

TEST(SysInfo, Version52IsToldApartByProcessorAndMetric) {
  for (const bool r2 : {false, true}) {
    for (const bool workstation : {false, true}) {
      for (const uint16_t architecture : {0, 6, 9}) {
        TOSFacts facts = NT(5, 2, workstation ? VER_NT_WORKSTATION : VER_NT_SERVER);
        facts.ServerR2 = r2;
        facts.ProcessorArchitecture = architecture;
        const TOSVersion other = workstation && architecture == 9 ? osXP : os2003;
        EXPECT_EQ(DescribeOS(facts).Version, r2 ? os2003R2 : other);
      }
    }
  }
}

TEST(SysInfo, WhatIsNotNT) {
  const struct {
    uint32_t Platform, Major, Minor;
    const char* CSDVersion;
    TOSVersion Version;
    TOSVersionEx VersionEx;
    const char* Name;
    const char* CSDVersionAfter;
  } cases[] = {
      {1, 4, 0, "", os95, osx95, "Windows 95", ""},
      {1, 4, 0, "A", os95, osx95, "Windows 95", "A"},
      {1, 4, 0, "B", os95, osx95OSR2, "Windows 95 OSR2", ""},
      {1, 4, 0, "C", os95, osx95OSR2, "Windows 95 OSR2", ""},
      {1, 4, 10, "", os98, osx98, "Windows 98", ""},
      {1, 4, 10, "A", os98, osx98SE, "Windows 98 SE", ""},
      {1, 4, 10, "B", os98, osx98, "Windows 98", "B"},
      {1, 4, 90, "A", osMe, osxMe, "Windows Me", "A"},
      {1, 4, 3, "x", osUnknown, osxUnknown, "Windows 4.3", "x"},
      {1, 5, 0, "", osUnknown, osxUnknown, "Unknown", ""},
      {0, 1, 30, "y", osWin32s, osxUnknown, "Unknown", "y"},
      {3, 6, 1, "", osUnknown, osxUnknown, "Unknown", ""},
  };
  for (const auto& c : cases) {
    TOSFacts facts;
    facts.PlatformId = c.Platform;
    facts.MajorVersion = c.Major;
    facts.MinorVersion = c.Minor;
    facts.BuildNumber = 0x04000457;
    facts.CSDVersion = c.CSDVersion;
    facts.RegistryProductType = "WINNT";  // counts for NT only
    const TOSDescription description = DescribeOS(facts);
    SCOPED_TRACE(Format("%u: %u.%u %s", c.Platform, c.Major, c.Minor, c.CSDVersion));
    EXPECT_EQ(description.Version, c.Version);
    EXPECT_EQ(description.VersionEx, c.VersionEx);
    EXPECT_EQ(description.Name, c.Name);
    EXPECT_EQ(description.CSDVersion, c.CSDVersionAfter);
    EXPECT_EQ(description.MajorVersion, c.Major);
    EXPECT_EQ(description.MinorVersion, c.Minor);
    EXPECT_EQ(description.BuildNumber, 0x04000457u);
  }
}

// ---------------------------------------------------------------------------------------- editions

// Each row adds a bit that decides to bits that decide later.
TEST(SysInfo, EditionsFollowFromTheSuites) {
  constexpr uint8_t work = VER_NT_WORKSTATION, server = VER_NT_SERVER;
  const struct {
    uint32_t Major, Minor;
    uint8_t ProductType;
    uint16_t SuiteMask;
    TOSVersionEx VersionEx;
    const char* Name;
  } cases[] = {
      {4, 0, work, 0xFFFF, osNTWorkstation, "Windows NT Workstation 4.0"},
      {4, 0, server, 0xFFFD, osNTServer, "Windows NT Server 4.0"},
      {4, 0, server, 0x0002, osNTServerEnterprise, "Windows NT Server 4.0 Enterprise Edition"},
      {5, 0, work, 0xFFFF, os2000Professional, "Windows 2000 Professional"},
      {5, 0, server, 0xFF5D, os2000Server, "Windows 2000 Server"},
      {5, 0, server, 0xFF7E, os2000ServerAdvanced, "Windows 2000 Advanced Server"},
      {5, 0, server, 0xFFDF, os2000ServerDatacenter, "Windows 2000 Datacenter Server"},
      {5, 0, server, 0x00A3, os2000ServerSmallBusiness, "Windows Small Business Server 2000"},
      {5, 1, work, 0xFDBF, osXPProfessional, "Windows XP Professional"},
      {5, 1, work, 0xFFBF, osXPHome, "Windows XP Home"},
      {5, 1, work, 0x0240, osXPEmbedded, "Windows XP Embedded"},
      {5, 2, server, 0x9B5D, os2003Standard, "Windows Server 2003, Standard Edition"},
      {5, 2, server, 0x0401, os2003Web, "Windows Server 2003, Web Edition"},
      {5, 2, server, 0x0422, os2003Enterprise, "Windows Server 2003, Enterprise Edition"},
      {5, 2, server, 0x0482, os2003Datacenter, "Windows Server 2003, Datacenter Edition"},
      {5, 2, server, 0x4482, os2003ComputeCluster, "Windows Server 2003, Compute Cluster Edition"},
      {5, 2, server, 0x6482, os2003Storage, "Windows Storage Server 2003"},
      {5, 2, server, 0x64A3, os2003SmallBusiness, "Windows Small Business Server 2003"},
      {5, 2, work, 0x64A3, osxUnknown, "Windows NT 5.2"},
      {5, 1, server, 0x0000, osxUnknown, "Windows NT 5.1"},
      {6, 2, work, 0x0000, osxUnknown, "Windows NT 6.2"},
      {10, 0, server, 0xFFFF, osxUnknown, "Windows NT 10.0"},
      {12, 7, work, 0xFFFF, osxUnknown, "Windows NT 12.7"},
      {6, 1, 0, 0xFFFF, osxUnknown, "Windows NT 6.1"},  // no kind of product
  };
  for (const auto& c : cases) {
    TOSFacts facts = NT(c.Major, c.Minor, c.ProductType, c.SuiteMask);
    facts.Product = PRODUCT_PROFESSIONAL;
    facts.ServicePackMajor = 10;
    facts.RegistryProductType = "LANMANNT";  // tells only where the long record is missing
    facts.RegistryCSDVersion = 0x300;
    SCOPED_TRACE(c.Name);
    EXPECT_EQ(DescribeOS(facts).VersionEx, c.VersionEx);
    EXPECT_EQ(DescribeOS(facts).Name, c.Name);
    EXPECT_EQ(DescribeOS(facts).ServicePackMajor, 10);
    if (c.ProductType != VER_NT_SERVER) continue;
    facts.ProductType = VER_NT_DOMAIN_CONTROLLER;
    EXPECT_EQ(DescribeOS(facts).VersionEx, c.VersionEx);
    if (c.Major != 5 || c.Minor != 2) continue;
    facts.ServerR2 = true;  // the editions of R2 stand in the same order
    EXPECT_EQ(static_cast<int>(DescribeOS(facts).VersionEx),
              static_cast<int>(c.VersionEx) + static_cast<int>(os2003R2Standard) -
                  static_cast<int>(os2003Standard));
  }
}

TEST(SysInfo, EditionsOfXPFollowFromTheMetricsFirst) {
  TOSFacts facts = NT(5, 1, VER_NT_WORKSTATION, VER_SUITE_EMBEDDEDNT | VER_SUITE_PERSONAL);
  facts.TabletPC = true;
  EXPECT_EQ(DescribeOS(facts).Name, "Windows XP Tablet PC Edition");
  facts.MediaCenter = true;
  EXPECT_EQ(DescribeOS(facts).Name, "Windows XP Media Center Edition");
  facts.Starter = true;
  EXPECT_EQ(DescribeOS(facts).Name, "Windows XP Starter Edition");
  facts.MajorVersion = 4;  // of XP only
  EXPECT_EQ(DescribeOS(facts).VersionEx, osNTWorkstation);
}

// The products of each version, with the ends of their editions' names.
TEST(SysInfo, EditionsFollowFromTheProduct) {
  const struct {
    TOSFacts Facts;
    std::string Begin, Ends;
  } cases[] = {
      {NT(6, 0, VER_NT_SERVER), "Windows ",
       "7 Server L, Standard Edition; 8 Server L, Datacenter Edition; 9 Small Business Server L; "
       "10 Server L, Enterprise Edition; 12 Server L, Datacenter Edition (core installation); "
       "13 Server L, Standard Edition (core installation); "
       "14 Server L, Enterprise Edition (core installation); "
       "15 Server L, Enterprise Edition for Itanium-based Systems; 17 Server L, Web Edition; "
       "18 Server L, Cluster Edition; 19 Server L, Home Edition; "
       "20 Storage Server L, Express Edition; 21 Storage Server L, Standard Edition; "
       "22 Storage Server L, Workgroup Edition; 23 Storage Server L, Enterprise Edition; "
       "24 Small Business Server L; 25 Small Business Server L, Premium Edition; "},
      {NT(6, 1, VER_NT_SERVER), "Windows ",
       "7 Server 2008 R2 Standard; 8 Server 2008 R2 Datacenter; 10 Server 2008 R2 Enterprise; "
       "12 Server 2008 R2 Datacenter (core installation); "
       "13 Server 2008 R2 Standard (core installation); "
       "14 Server 2008 R2 Enterprise (core installation); "
       "15 Server 2008 R2 Enterprise for Itanium-based Systems; 17 Web Server 2008 R2; "
       "18 HPC Server 2008 R2; 19 Storage Server 2008 R2; 20 Storage Server 2008 R2 Express; "
       "21 Storage Server 2008 R2 Standard; 22 Storage Server 2008 R2 Workgroup; "
       "23 Storage Server 2008 R2 Enterprise; 29 Web Server 2008 R2 (core installation); "},
      {NT(6, 3, VER_NT_SERVER), "Windows Server 2012 R2 ",
       "7 Standard; 8 Datacenter; 19 Essentials; 33 Foundation; "},
      {NT(6, 0, VER_NT_WORKSTATION), "Windows Vista ",
       "1 Ultimate; 2 Home Basic; 3 Home Premium; 4 Enterprise; 5 Home Basic N; 6 Business; "
       "11 Starter; 16 Business N; "},
      {NT(6, 1, VER_NT_WORKSTATION), "Windows 7 ",
       "1 Ultimate; 2 Home Basic; 3 Home Premium; 4 Enterprise; 5 Home Basic N; 11 Starter; "
       "26 Home Premium N; 48 Professional; 49 Professional N; 103 Professional with WMC; "},
      {NT(10, 0, VER_NT_WORKSTATION), "Windows 10 ",
       "4 Enterprise; 27 Enterprise N; 48 Pro; 49 Pro N; 70 Enterprise E; "
       "72 Enterprise Evaluation; 84 Enterprise N Evaluation; 98 Home N; 99 Home China; "
       "100 Home Single Language; 101 Home; 121 Education; 122 Education N; "
       "125 Enterprise 2015 LTSB; 126 Enterprise 2015 LTSB N; "
       "129 Enterprise 2015 LTSB Evaluation; 130 Enterprise 2015 LTSB N Evaluation; "},
  };
  for (const auto& c : cases) {
    TOSFacts facts = c.Facts;
    std::string ends;
    for (facts.Product = 0; facts.Product < 256; ++facts.Product) {
      const TOSDescription edition = DescribeOS(facts);
      if (edition.VersionEx == osxUnknown) continue;
      EXPECT_TRUE(edition.Name.starts_with(c.Begin)) << edition.Name;
      ends += std::to_string(facts.Product) + " " + edition.Name.substr(c.Begin.size()) + "; ";
    }
    EXPECT_EQ(StrReplace(ends, "\"Longhorn\"", "L"), c.Ends);
  }
}

TEST(SysInfo, ValuesWithoutANameAreUnknown) {
  EXPECT_STREQ(OSVersionName(static_cast<TOSVersion>(20)), "Unknown");
  EXPECT_STREQ(OSVersionExName(static_cast<TOSVersionEx>(105)), "Unknown");
}

// ------------------------------------------------------------------------------------ service
// packs

TEST(SysInfo, WithoutTheLongRecordTheRegistryTells) {
  const struct {
    std::optional<std::string> ProductType;
    std::optional<int32_t> CSDVersion;
    TOSVersionEx VersionEx;
    int32_t Major, Minor;
  } cases[] = {
      {"WINNT", 0x300, osNTWorkstation, 0, 300},
      {"LanmanNT", 0, osNTServer, 0, 0},
      {"servernt", 0x99, osNTServerEnterprise, 0, 99},
      {"other", 0x10002, osxUnknown, 1, 10002},
      {"WINNT", 0x12000345, osNTWorkstation, 1200, 12000345},
      {"WINNT", -0x66666667, osNTWorkstation, 9999, 99999999},  // 0x99999999
      {"WINNT", 0x1000A, osNTWorkstation, 1, 0},                // A is no decimal digit
      {"WINNT", 0xA0001, osNTWorkstation, 0, 0},
      {"WINNT", -1, osNTWorkstation, 0, 0},
      {"WINNT", std::nullopt, osNTWorkstation, 0, 0},
      {std::nullopt, 0x300, osxUnknown, 0, 0},  // what is missing ends the reading
  };
  for (const auto& c : cases) {
    TOSFacts facts = NT(4, 0, 0);
    facts.Extended = false;
    facts.ServicePackMajor = 7;  // of a record that was not filled
    facts.RegistryProductType = c.ProductType;
    facts.RegistryCSDVersion = c.CSDVersion;
    const TOSDescription description = DescribeOS(facts);
    SCOPED_TRACE(Format("%s %x", c.ProductType.value_or("none").c_str(),
                        static_cast<uint32_t>(c.CSDVersion.value_or(0))));
    EXPECT_EQ(description.Version, osNT);
    EXPECT_EQ(description.VersionEx, c.VersionEx);
    EXPECT_EQ(description.ServicePackMajor, c.Major);
    EXPECT_EQ(description.ServicePackMinor, c.Minor);
  }
}

// ------------------------------------------------------------------------------------ this machine

TEST(SysInfo, ThisMachineIsDescribedAsTheSystemTells) {
  OSVERSIONINFOEXA info;
  bool extended = false;
  TOSInfo::GetVersion(info, extended);
  EXPECT_TRUE(extended);
  const TOSInfo& own = TSystemInfo::GetInstance()->GetOSInfo();
  EXPECT_EQ(own.GetMajorVersion(), info.dwMajorVersion);
  EXPECT_EQ(own.GetMinorVersion(), info.dwMinorVersion);
  EXPECT_EQ(own.GetBuildNumber(), info.dwBuildNumber);
  EXPECT_EQ(own.GetCSDVersion(), info.szCSDVersion);
  EXPECT_EQ(own.GetServicePackMajor(), info.wServicePackMajor);
  EXPECT_GE(own.GetVersion(), osVista);
  const TOSVersionEx edition = EditionOfProduct(own.GetVersion(), own.GetProductType());
  EXPECT_NE(own.GetProductType(), 0u);
  EXPECT_EQ(own.GetVersionEx(), edition);
  if (edition != osxUnknown) {
    EXPECT_EQ(own.GetName(), OSVersionExName(edition));
  }
}

/// Removes what the test adds to the machine's list of ports.
struct TPortList : TRegistry {
  TPortList() {
    SetRootKey(HKEY_LOCAL_MACHINE);
    EXPECT_TRUE(OpenKey("Hardware\\DeviceMap\\SerialComm", true));
  }
  ~TPortList() override {
    DeleteValue(Port);
    DeleteValue(Odd);
  }
  const std::string Port = "\\Device\\VeloxTest0", Odd = "\\Device\\VeloxTest1";
};

TEST(SysInfo, SerialPortsAreThoseThatTheSystemLists) {
  const size_t before = TSystemInfo().GetComPorts().size();
  TPortList list;
  list.WriteString(list.Port, "COM77");
  list.WriteInteger(list.Odd, 1);  // no name of a port
  const TSystemInfo system;
  ASSERT_EQ(system.GetComPorts().size(), before + 1);
  EXPECT_EQ(std::count(system.GetComPorts().begin(), system.GetComPorts().end(), "COM77"), 1);

  const test::TExampleRun run = test::RunExample("velinfo", {});
  EXPECT_EQ(run.ExitCode, 0);
  const std::string name = "System " + system.GetOSInfo().GetName();
  EXPECT_TRUE(run.Lines[0].starts_with(name)) << run.Lines[0];
  const auto ports = std::find_if(run.Lines.begin(), run.Lines.end(), [](const std::string& line) {
    return line.starts_with("  serial ports: ") && line.ends_with("COM77");
  });
  EXPECT_NE(ports, run.Lines.end());
}

}  // namespace
}  // namespace velox
