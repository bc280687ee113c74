// The type registry and reflection. The registry is process-wide and keeps
// every type until exit, so each test registers types under names of its own.
#include "qel/Type.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "qel/Dir.h"
#include "qel/Exception.h"

namespace {

using Qel::TypeNode;
using Kind = Qel::TypeNode::Kind;

// "QelTest::<base>_<n>": a name no other test (or repetition) has used.
Qel::Name uniqueName(const char* base) {
  static unsigned next = 0;
  return Qel::Name(std::string("QelTest::") + base + "_" + std::to_string(next++));
}

Qel::Ptr<TypeNode> declare(const char* base, Kind kind = Kind::entity,
                           const TypeNode* parent = nullptr) {
  return new TypeNode(uniqueName(base), kind, parent);
}

TEST(TypeRegistryTest, RegisteredTypesAreFoundByNameWithKindAndBaseInRegistrationOrder) {
  const TypeNode* base = Qel::typeNodeIs(declare("Base"));
  const TypeNode* node = Qel::typeNodeIs(declare("Value", Kind::value, base));
  EXPECT_EQ(Qel::typeNode(node->name()), node);
  EXPECT_EQ(std::make_pair(node->kind(), node->base()), std::make_pair(Kind::value, base));
  EXPECT_EQ(Qel::typeNode("QelTest::NeverRegistered"), nullptr);
  std::vector<const TypeNode*> all = Qel::typeNodes();
  ASSERT_GE(all.size(), 2u);
  EXPECT_EQ(std::vector<const TypeNode*>(all.end() - 2, all.end()),
            (std::vector<const TypeNode*>{base, node}));
}

TEST(TypeRegistryTest, DuplicateNameRaisesNameInUseAndKeepsTheFirstAndNullIsRangeException) {
  const TypeNode* first = Qel::typeNodeIs(declare("Twice"));
  std::size_t count = Qel::typeNodes().size();
  EXPECT_THROW(Qel::typeNodeIs(new TypeNode(first->name(), Kind::value)), Qel::NameInUseException);
  EXPECT_EQ(Qel::typeNode(first->name()), first);
  EXPECT_EQ(Qel::typeNodes().size(), count);
  EXPECT_THROW(Qel::typeNodeIs(nullptr), Qel::RangeException);
}

class EnumTypeTest : public ::testing::Test {
 protected:
  EnumTypeTest() {
    Qel::Ptr<TypeNode> node = declare("Color", Kind::enumeration);
    node->enumeratorIs("red", 1).enumeratorIs("green", 2).enumeratorIs("blue", 4);
    type_ = Qel::typeNodeIs(node);
  }
  const TypeNode* type_;
};

TEST_F(EnumTypeTest, NumberAndNameGiveEachOtherInDeclarationOrder) {
  Qel::String name;
  unsigned int number = 0;
  EXPECT_TRUE(type_->enumName(2, &name) && type_->enumNumber("blue", &number));
  EXPECT_EQ(std::make_pair(name, number), std::make_pair(Qel::String("green"), 4u));
  std::vector<std::pair<Qel::String, unsigned int>> expected = {
      {"red", 1}, {"green", 2}, {"blue", 4}};
  EXPECT_EQ(type_->enumerators(), expected);
  EXPECT_EQ(Qel::enumToStrep(*type_, 4), "blue");
}

TEST_F(EnumTypeTest, UnknownNumberOrNameIsFalseLeavesTheOutputAloneAndPrintsAsANumber) {
  Qel::String name("unchanged");
  unsigned int number = 99;
  EXPECT_FALSE(type_->enumName(3, &name));
  EXPECT_FALSE(type_->enumNumber("purple", &number));
  EXPECT_FALSE(type_->enumNumber("Green", &number));  // names are case-sensitive
  EXPECT_EQ(std::make_pair(name, number), std::make_pair(Qel::String("unchanged"), 99u));
  EXPECT_EQ(Qel::enumToStrep(*type_, 3), "3");
}

class Widget : public Qel::PtrInterface {
 public:
  unsigned int size = 3;
  unsigned int grown = 0;
};

const Widget& asWidget(const Qel::PtrInterface& o) {
  return static_cast<const Widget&>(o);
}

// Three generations: the base declares most members, the middle one hides a
// constant and adds an attribute, the leaf declares nothing of its own.
class ReflectionTest : public ::testing::Test {
 protected:
  ReflectionTest() {
    Qel::Ptr<TypeNode> base = declare("Widget");
    base->constantIs("limit", "16")
        .constantIs("shadowed", "'base'")
        .attributeIs("size",
                     [](const Qel::PtrInterface& o) { return Qel::valueToStrep(asWidget(o).size); })
        .operationIs("grow", [](Qel::PtrInterface& o) { ++static_cast<Widget&>(o).grown; });
    base_ = Qel::typeNodeIs(base);
    Qel::Ptr<TypeNode> middle = declare("BigWidget", Kind::entity, base_);
    middle->constantIs("shadowed", "'middle'").attributeIs("grown", [](const Qel::PtrInterface& o) {
      return Qel::valueToStrep(asWidget(o).grown);
    });
    middle_ = Qel::typeNodeIs(middle);
    leaf_ = Qel::typeNodeIs(declare("HugeWidget", Kind::entity, middle_));
  }

  const TypeNode* base_;
  const TypeNode* middle_;
  const TypeNode* leaf_;
  Widget widget_;
};

TEST_F(ReflectionTest, ConstantIsFoundThroughEveryBaseAndADerivedOneHidesIt) {
  EXPECT_EQ(leaf_->constant("limit"), "16");
  EXPECT_EQ(leaf_->constant("shadowed"), "'middle'");
  EXPECT_EQ(base_->constant("shadowed"), "'base'");
}

TEST_F(ReflectionTest, AttributeAndOperationAreFoundThroughEveryBaseAndActOnTheObject) {
  EXPECT_EQ(leaf_->attribute(widget_, "grown"), "0");
  leaf_->operationDo(widget_, "grow");
  base_->operationDo(widget_, "grow");
  widget_.size = 5;
  EXPECT_EQ(leaf_->attribute(widget_, "size"), "5");
  EXPECT_EQ(middle_->attribute(widget_, "grown"), "2");
}

// Nor does a base see the members of derived types, nor one kind of member
// another kind's.
TEST_F(ReflectionTest, UnknownDerivedOnlyOrOtherKindMemberNamesAreRangeException) {
  EXPECT_THROW(leaf_->constant("nope"), Qel::RangeException);
  EXPECT_THROW(leaf_->attribute(widget_, "nope"), Qel::RangeException);
  EXPECT_THROW(leaf_->operationDo(widget_, "nope"), Qel::RangeException);
  EXPECT_THROW(base_->attribute(widget_, "grown"), Qel::RangeException);
  EXPECT_THROW(base_->constant("size"), Qel::RangeException);
  EXPECT_THROW(base_->attribute(widget_, "limit"), Qel::RangeException);
  EXPECT_THROW(base_->operationDo(widget_, "size"), Qel::RangeException);
}

TEST(ValueTypeTest, ValueIsBuiltFromItsTextFormOrItsMakerAndABareTypeRefusesBoth) {
  using Box = Qel::ValueBox<unsigned int>;
  Qel::Ptr<TypeNode> node = declare("Count", Kind::value);
  node->parserIs([](const Qel::String& text) -> Qel::Ptr<Qel::ValueBoxBase> {
        return new Box(Qel::strepToValue<unsigned int>(text));
      })
      .defaultIs([]() -> Qel::Ptr<Qel::ValueBoxBase> { return new Box(7); });
  const TypeNode* count = Qel::typeNodeIs(node);
  Qel::Ptr<Qel::ValueBoxBase> box = count->valueFromStrep("12");
  EXPECT_EQ(box->strep(), "12");
  EXPECT_EQ(Qel::ptrDynamicCast<Box>(box)->value, 12u);
  EXPECT_EQ(Qel::ptrDynamicCast<Box>(count->defaultValue())->value, 7u);
  const TypeNode* bare = Qel::typeNodeIs(declare("Bare", Kind::value));
  EXPECT_THROW(bare->valueFromStrep("12"), Qel::RangeException);
  EXPECT_THROW(bare->defaultValue(), Qel::RangeException);
}

}  // namespace
