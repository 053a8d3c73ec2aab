// Shared fixture of the settings tests: they write the real settings file.
#ifndef HIC_TESTS_SETTINGS_SETTINGS_TEST_UTIL_H
#define HIC_TESTS_SETTINGS_SETTINGS_TEST_UTIL_H

#include <cstdio>
#include <string>

#include "log/log.h"
#include "settings/settings_file.h"
#include "support/support.h"

namespace hic_test {

inline void WriteSettings(const std::string& content) {
    WriteFile(HIC_HOST_INFO_PATH, content);
}

class SettingsTest : public SandboxTest {
  protected:
    void SetUp() override {
        SandboxTest::SetUp();
        (void)std::remove(HIC_HOST_INFO_PATH);
    }
    void TearDown() override {
        SandboxTest::TearDown();
        (void)std::remove(HIC_HOST_INFO_PATH);
    }
};

}  // namespace hic_test

#endif  // HIC_TESTS_SETTINGS_SETTINGS_TEST_UTIL_H
