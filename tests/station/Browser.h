#pragma once

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Program.h"

// Headless Chromium, driven by chromedriver over the WebDriver protocol.
class Browser {
 public:
  // Whether both programs are there.
  static bool isInstalled();

  Browser();
  ~Browser();  // NOLINT(bugprone-exception-escape): ends the test
  Browser(const Browser&) = delete;
  Browser& operator=(const Browser&) = delete;

  void open(const std::string& url);
  // Runs JavaScript in the page until it calls done(value), and returns the value.
  nlohmann::json evaluate(const std::string& script);
  // As a user does, who thereby allows sound.
  void click(const std::string& selector);
  // The page's HTML when it contains all of these, or after 15 s.
  std::string awaitTexts(const std::vector<std::string>& texts);

 private:
  nlohmann::json request(const std::string& path, const nlohmann::json& body,
                         const std::string& method = "POST");

  Program driver_;
  std::string session_;  // URL
};
