// A fixture for end-to-end tests of the file commands: the built host on real pipes and a
// fresh directory, known by its canonical path so that answers can be compared as text.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "support/host_process.h"
#include "support/temp_dir.h"

namespace quay_test {

class HostCommandTest : public ::testing::Test {
 protected:
  nlohmann::json Call(std::string_view method, nlohmann::json params) {
    return host_.Call({{"method", method}, {"params", std::move(params)}});
  }
  // The data of an answer that must succeed; an empty object when it did not.
  nlohmann::json Data(std::string_view method, nlohmann::json params) {
    const nlohmann::json answer = Call(method, std::move(params));
    EXPECT_TRUE(answer.value("ok", false)) << answer.dump();
    return answer.contains("outputs") ? answer["outputs"][0]["data"] : nlohmann::json::object();
  }
  // Checks that the answer is a refusal with these numbers and gives its message.
  std::string Refusal(std::string_view method, nlohmann::json params, int category, int code) {
    const nlohmann::json answer = Call(method, std::move(params));
    EXPECT_FALSE(answer.value("ok", true)) << answer.dump();
    EXPECT_EQ(answer["error"].value("category", -1), category) << answer.dump();
    EXPECT_EQ(answer["error"].value("code", -1), code) << answer.dump();
    return answer["error"].value("message", std::string());
  }
  [[nodiscard]] std::string P(std::string_view relative) const { return (root_ / relative).native(); }

  TempDir dir_;
  std::filesystem::path root_ = std::filesystem::canonical(dir_.path());
  HostProcess host_ = HostProcess::WithConfig();
};

}  // namespace quay_test
