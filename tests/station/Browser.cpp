#include "Browser.h"

#include <gtest/gtest.h>

#include <csignal>
#include <regex>

using nlohmann::json;

bool Browser::isInstalled() {
  return run({"sh", "-c", "command -v chromium && command -v chromedriver"}).exitCode == 0;
}

Browser::Browser() : driver_({"chromedriver", "--port=0"}) {
  std::smatch port;
  std::string line = driver_.readLine();
  while (!line.empty() &&
         !std::regex_search(line, port, std::regex("successfully on port (\\d+)"))) {
    line = driver_.readLine();
  }
  session_ = "http://127.0.0.1:" + port[1].str() + "/session";
  const json options = {
      {"args",
       {"--headless", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
        "--disable-background-networking", "--disable-component-update", "--disable-sync"}}};
  const json made =
      request("", {{"capabilities", {{"alwaysMatch", {{"goog:chromeOptions", options}}}}}});
  session_ += "/" + made.at("sessionId").get<std::string>();
}

Browser::~Browser() {  // NOLINT(bugprone-exception-escape)
  request("", nullptr, "DELETE");
  driver_.signal(SIGTERM);
}

void Browser::open(const std::string& url) {
  request("/url", {{"url", url}});
}

json Browser::evaluate(const std::string& script) {
  return request("/execute/async",
                 {{"script", "const done = arguments[0];" + script}, {"args", json::array()}});
}

std::string Browser::awaitTexts(const std::vector<std::string>& texts) {
  return evaluate("const texts = " + json(texts).dump() + R"(, end = Date.now() + 15000;
      (function look() {
        const page = document.documentElement.outerHTML;
        const isThere = texts.every((text) => page.includes(text));
        isThere || Date.now() > end ? done(page) : setTimeout(look, 50);
      })();)");
}

void Browser::click(const std::string& selector) {
  const json element = request("/element", {{"using", "css selector"}, {"value", selector}});
  request("/element/" + element.begin()->get<std::string>() + "/click", json::object());
}

json Browser::request(const std::string& path, const json& body, const std::string& method) {
  const Result result =
      run({"curl", "-sS", "-X", method, "-d", body.is_null() ? "" : body.dump(), session_ + path});
  const json answer = json::parse(result.out, nullptr, false);
  EXPECT_TRUE(answer.is_object() && !answer["value"].contains("error")) << result.out << result.err;
  return answer.is_object() ? answer["value"] : json();
}
