// Goal: the store answers as its interface says, each feature seeing its own properties only.
// Method: direct calls.
#include "PropertyStore.h"

#include <gtest/gtest.h>

namespace {

using host::PropertyStore;

TEST(PropertyStore, AnswersWithTheValueOfAKnownKey) {
  PropertyStore store;
  store.Set("id", "key", "value");
  std::string value = "old";
  EXPECT_EQ(store.Get("id", "key", value), ETrue);
  EXPECT_EQ(value, "value");
}

TEST(PropertyStore, LeavesTheTextAloneForAnUnknownKeyOrFeature) {
  PropertyStore store;
  store.Set("id", "key", "value");
  std::string value = "old";
  EXPECT_EQ(store.Get("id", "other", value), EFalse);
  EXPECT_EQ(store.Get("other", "key", value), EFalse);
  EXPECT_EQ(store.Get("", "key", value), EFalse);
  EXPECT_EQ(value, "old");
}

TEST(PropertyStore, KeepsFeaturesApartAndReplacesValues) {
  PropertyStore store;
  store.Set("a", {{"key", "1"}, {"other", "2"}});
  store.Set("b", "key", "3");
  store.Set("a", "key", "4");
  std::string value;
  EXPECT_EQ(store.Get("a", "key", value), ETrue);
  EXPECT_EQ(value, "4");
  EXPECT_EQ(store.Get("b", "key", value), ETrue);
  EXPECT_EQ(value, "3");
  EXPECT_EQ(store.Get("a", "other", value), ETrue);
  EXPECT_EQ(value, "2");
}

TEST(PropertyStore, AnEmptyValueIsAValueAndIdsMayHoldAnyByte) {
  PropertyStore store;
  const TFeatureId odd("a\0b", 3);
  store.Set(odd, "key", "");
  std::string value = "old";
  EXPECT_EQ(store.Get(odd, "key", value), ETrue);
  EXPECT_EQ(value, "");
  EXPECT_EQ(store.Get("a", "key", value), EFalse);
}

}  // namespace
