#include "dispatcher/web_url.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "dispatcher/classifier.h"
#include "dispatcher/unicode.h"

namespace dispatcher {
namespace {

Classification Classify(const std::string& url) {
  PolicyRule rule{true, {{true, "*.corp.test/*"}, {true, "corp.test/*"}, {true, "10.1.2.3/*"}}};
  return ClassifyUrl(PolicyRules{rule}, url, InvalidPatternHandling::kReport);
}

// The core's Punycode (the macOS mapping's, and the decoder of hosts for
// patterns in Unicode) agrees with libidn2.
TEST(WebUrlTest, PunycodeAgreesWithTheLibrary) {
  for (const char* label : {"faß", "日本語.bücher", "3年b組金八先生", "почемужеонинеговорятпорусски"}) {
    std::optional<std::string> ascii = internal::PlatformDomainToAscii(label);
    ASSERT_TRUE(ascii) << label;
    EXPECT_EQ(EncodeMappedDomain(label), ascii);
    EXPECT_EQ(DecodeDomainLabels(*ascii), label);
  }
  EXPECT_EQ(DecodeDomainLabels("xn--a_b.xn--fa-hia"), "xn--a_b.fa\u00df") << "no Punycode: kept as written";
  EXPECT_EQ(DecodeDomainLabels(EncodeMappedDomain("a\U0010FFFF").value_or("")), "a\U0010FFFF") << "the last one";
}

// The table in web_url_readings.txt: each spelling is read as Node reads it,
// and decided as its reading and as the work URL it stands for.
TEST(WebUrlTest, SpellingsAreReadAsBrowsersReadThem) {
  std::ifstream table(std::string(__FILE__).substr(0, std::string(__FILE__).rfind('/')) + "/web_url_readings.txt");
  std::string work_url;
  size_t rows = 0;
  for (std::string line; std::getline(table, line);) {
    if (line.rfind("#=", 0) == 0) work_url = line.substr(std::min<size_t>(3, line.size()));
    if (line.empty() || line[0] == '#') continue;
    ++rows;
    std::string spelling, reading = line.substr(line.find('\t') + 1);
    for (size_t i = 0; i < line.find('\t'); ++i) {
      bool escape = line.compare(i, 2, "\\x") == 0 && isxdigit(line[i + 2]) && isxdigit(line[i + 3]);
      spelling += escape ? static_cast<char>(std::stoi(line.substr(i + 2, 2), nullptr, 16)) : line[i];
      i += escape ? 3 : 0;
    }
    if (reading == "rejected") {
      EXPECT_EQ(ParseWebUrl(spelling).status(), WebUrlStatus::kRejected) << line;
      continue;
    }
    EXPECT_EQ(ParseWebUrl(spelling).Href(), reading) << line;
    Classification spelt = Classify(spelling);
    for (const std::string& same : {reading, work_url.empty() ? reading : work_url}) {
      Classification expected = Classify(same);
      EXPECT_EQ(spelt.subject, expected.subject) << line << " as " << same;
      EXPECT_EQ(spelt.is_work, expected.is_work) << line << " as " << same;
    }
    EXPECT_TRUE(work_url.empty() || spelt.is_work) << line;
  }
  EXPECT_GT(rows, 35u);
}

// Every combination of changes that browsers ignore, made to a work URL, is
// read as that URL and decided as it is. With CORVANE_WEB_URL_SPELLINGS set,
// the spellings go to that file for web_url_readings.js to check with Node.
TEST(WebUrlTest, EverySpellingOfAWorkUrlIsDecidedAsTheUrl) {
  struct Base {
    std::string scheme, port, path;
    std::vector<std::string> hosts;  // the first as the reading has it
  };
  const std::vector<Base> bases = {
      {"https", "443", "/app/x?y=1",
       {"intra.corp.test", "INTRA.Corp.TEST", "intra%2Ecorp.test", "\uff49\uff4e\uff54\uff52\uff41.corp\u3002test"}},
      {"http", "80", "/", {"corp.test", "c%6Frp.TEST", "\uff43\uff4f\uff52\uff50.test"}},
      {"http", "80", "/", {"10.1.2.3", "167838211", "0xa.1.2.3", "012.1.2.3", "10.1.515", "1%30.66051"}},
      {"https", "443", "/%C3%A9#f", {"xn--fa-hia.corp.test", "fa\u00df.corp.test", "FA%C3%9F.CORP.test"}},
  };
  std::vector<std::pair<std::string, std::string>> spellings;  // and the URL they stand for
  for (const Base& base : bases) {
    std::string backslashed = base.path;
    for (size_t i = 0; i < std::min(backslashed.size(), backslashed.find_first_of("?#")); ++i) {
      if (backslashed[i] == '/') backslashed[i] = '\\';
    }
    for (const std::string& scheme : {base.scheme, std::string("HtTpS").substr(0, base.scheme.size())})
      for (const char* slashes : {"//", "", "\\\\\\", "/\\"})
        for (const std::string& host : base.hosts)
          for (const std::string& authority : {host, "@" + host + ":", ":@" + host + ":0" + base.port})
            for (const std::string& path : {base.path, backslashed, "/x/.." + base.path, "/%2E" + base.path})
              for (int noise = 0; noise < 3; ++noise) {
                std::string spelling = scheme + ":" + slashes + authority + path;
                if (noise == 1) spelling = " \x01" + spelling + "\x1f ";
                if (noise == 2) {
                  // Between characters: browsers decode UTF-8 before they drop these.
                  size_t middle = spelling.size() / 2;
                  while ((spelling[middle] & 0xC0) == 0x80) ++middle;
                  spelling.insert(spelling.size() - 1, "\r");
                  spelling.insert(middle, "\n");
                  spelling.insert(1, "\t");
                }
                spellings.emplace_back(spelling, base.scheme + "://" + base.hosts[0] + base.path);
              }
  }
  if (const char* path = std::getenv("CORVANE_WEB_URL_SPELLINGS")) {
    std::ofstream dump(path, std::ios::binary);
    for (const auto& [spelling, href] : spellings) {
      for (char c : spelling) {
        char hex[5];
        std::snprintf(hex, sizeof(hex), "\\x%02x", c);
        dump << (static_cast<unsigned char>(c) < 0x20 || c == '\\' ? std::string(hex) : std::string(1, c));
      }
      dump << '\t' << href << '\n';
    }
  }
  int failures = 0;
  for (const auto& [spelling, href] : spellings) {
    Classification spelt = Classify(spelling), expected = Classify(href);
    ASSERT_TRUE(expected.is_work) << href;
    if (ParseWebUrl(spelling).Href() != href || spelt.subject != expected.subject || !spelt.is_work) {
      ADD_FAILURE() << spelling << " is read as " << ParseWebUrl(spelling).Href() << ", not " << href;
      if (++failures == 5) break;
    }
  }
  EXPECT_GT(spellings.size(), 4000u);
}

}  // namespace
}  // namespace dispatcher
