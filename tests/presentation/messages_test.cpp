// The message catalogue: both language files agree on keys and placeholders, the compiled-in
// texts are the files', lookups fall back, and placeholders are filled in.

#include "core/presentation/messages.hpp"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <sstream>
#include <string>

#include "core/presentation/bundled_messages.hpp"

namespace kestrel {
namespace {

std::string readCatalogueFile(const char* name) {
    std::ifstream in(std::string(KESTREL_SOURCE_DIR) + "/resources/i18n/" + name, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(MessagesCatalogue, BothLanguagesHaveTheSameKeysNonEmptyTextsAndPlaceholders) {
    const auto english = nlohmann::json::parse(readCatalogueFile("en.json"));
    const auto chinese = nlohmann::json::parse(readCatalogueFile("zh-Hans.json"));
    ASSERT_TRUE(english.is_object());
    ASSERT_TRUE(chinese.is_object());
    ASSERT_FALSE(english.empty());

    std::set<std::string> englishKeys, chineseKeys;
    for (const auto& [key, value] : english.items()) {
        englishKeys.insert(key);
    }
    for (const auto& [key, value] : chinese.items()) {
        chineseKeys.insert(key);
    }
    EXPECT_EQ(englishKeys, chineseKeys);

    for (const auto& [key, value] : english.items()) {
        ASSERT_TRUE(value.is_string()) << key;
        EXPECT_FALSE(value.get<std::string>().empty()) << key;
        if (!chinese.contains(key)) {
            continue;
        }
        const auto& translation = chinese[key];
        ASSERT_TRUE(translation.is_string()) << key;
        EXPECT_FALSE(translation.get<std::string>().empty()) << key;
        EXPECT_EQ(messagePlaceholders(value.get<std::string>()),
                  messagePlaceholders(translation.get<std::string>()))
            << key;
    }
}

TEST(MessagesCatalogue, TheCompiledInTextsAreTheFiles) {
    EXPECT_EQ(bundledEnglishMessagesJson(), readCatalogueFile("en.json"));
    EXPECT_EQ(bundledSimplifiedChineseMessagesJson(), readCatalogueFile("zh-Hans.json"));
}

TEST(MessagesCatalogue, TextsQuotedElsewhereAreUsedAsTheyStand) {
    const auto& messages = Messages::bundled();
    const struct {
        const char* key;
        AppLanguage language;
        const char* text;
    } cases[] = {
        {"price.noMatch", AppLanguage::en, "No price-table match. Add an override in Prices."},
        {"fx.badResponse", AppLanguage::zhHans, "汇率接口返回无效"},
        {"fx.missingRate", AppLanguage::zhHans, "没有 USD/CNY 报价"},
        {"fx.outOfRange", AppLanguage::zhHans, "汇率超出 5.00–12.00，已忽略"},
        {"currency.autoNote", AppLanguage::zhHans,
         "中文默认人民币，其他语言默认美元。仅人民币需要汇率。"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(messages.text(c.key, c.language), c.text) << c.key;
    }
    EXPECT_EQ(messages.text("fx.rateHint", AppLanguage::zhHans, {{"rate", "7.2000"}}),
              "当前 7.2000，可手输或拉取 Frankfurter 报价");
    EXPECT_EQ(messages.text("fx.rateHint", AppLanguage::en, {{"rate", "7.2000"}}),
              "Current 7.2000, type it in or fetch Frankfurter");
}

// Sets one environment variable for the scope of a test and restores it after.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = ::getenv(name)) {
            old_ = old;
        }
        ::setenv(name, value, 1);
    }
    ~ScopedEnv() {
        if (old_) {
            ::setenv(name_, old_->c_str(), 1);
        } else {
            ::unsetenv(name_);
        }
    }

  private:
    const char* name_;
    std::optional<std::string> old_;
};

TEST(Messages, LookupFallsBackToEnglishThenToTheKey) {
    const Messages messages(R"({"a":"A","b":"B","n":7})", R"({"a":"甲","c":"","n":"八"})");
    const struct {
        const char* key;
        AppLanguage language;
        const char* expected;
    } cases[] = {
        {"a", AppLanguage::zhHans, "甲"}, {"a", AppLanguage::en, "A"},
        {"b", AppLanguage::zhHans, "B"},  // not translated
        {"c", AppLanguage::zhHans, "c"},  // an empty translation is no translation
        {"n", AppLanguage::en, "n"},      // not a string
        {"n", AppLanguage::zhHans, "八"}, {"missing", AppLanguage::en, "missing"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(messages.text(c.key, c.language), c.expected)
            << c.key << " " << rawValue(c.language);
    }
}

TEST(Messages, TheSystemLanguageFollowsTheLocale) {
    const Messages messages(R"({"a":"A"})", R"({"a":"甲"})");
    {
        ScopedEnv locale("LC_ALL", "zh_CN.UTF-8");
        EXPECT_EQ(messages.text("a", AppLanguage::system), "甲");
    }
    {
        ScopedEnv locale("LC_ALL", "de_DE.UTF-8");
        EXPECT_EQ(messages.text("a", AppLanguage::system), "A");
    }
}

TEST(Messages, CatalogueTextsThatAreNotObjectsGiveOnlyKeys) {
    const Messages messages("not json", R"(["a"])");
    EXPECT_TRUE(messages.table(AppLanguage::en).empty());
    EXPECT_TRUE(messages.table(AppLanguage::zhHans).empty());
    EXPECT_EQ(messages.text("period.today", AppLanguage::zhHans), "period.today");
}

TEST(Messages, PlaceholdersAreFilledInOnePass) {
    const struct {
        const char* pattern;
        std::initializer_list<MessageArg> args;
        const char* expected;
    } cases[] = {
        {"Current {rate}, ok", {{"rate", "7.2"}}, "Current 7.2, ok"},
        {"{a}{b}{a}", {{"a", "1"}, {"b", "2"}}, "121"},
        {"{count} 个事件", {{"count", "3"}}, "3 个事件"},
        {"{unknown} stays", {{"rate", "7.2"}}, "{unknown} stays"},
        {"{} { rate } {rate {rate-x}", {{"rate", "R"}}, "{} { rate } {rate {rate-x}"},
        {"{{rate}}", {{"rate", "R"}}, "{R}"},
        {"{rate}", {{"rate", "{rate}"}}, "{rate}"},  // a value is not expanded again
        {"trailing {", {}, "trailing {"},
        {"", {{"rate", "R"}}, ""},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(formatMessage(c.pattern, c.args), c.expected) << c.pattern;
    }
}

TEST(Messages, PlaceholderNamesAreFoundSortedAndOnce) {
    const struct {
        const char* pattern;
        std::vector<std::string> names;
    } cases[] = {
        {"no placeholders {} { x }", {}},
        {"{rate} and {count} and {rate}", {"count", "rate"}},
        {"当前 {rate}，可手输", {"rate"}},
        {"{a_1}{B2}", {"B2", "a_1"}},
        {"{open", {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(messagePlaceholders(c.pattern), c.names) << c.pattern;
    }
}

}  // namespace
}  // namespace kestrel
