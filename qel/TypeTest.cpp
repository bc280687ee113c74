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

class TypeRegistryTest : public ::testing::Test {};

TEST_F(TypeRegistryTest, RegisteredTypeIsFoundByNameWithItsKindAndBase) {
  const TypeNode* base = Qel::typeNodeIs(declare("Base"));
  const TypeNode* node = Qel::typeNodeIs(declare("Value", Kind::value, base));
  EXPECT_EQ(Qel::typeNode(node->name()), node);
  EXPECT_EQ(Qel::typeNode(node->name())->kind(), Kind::value);
  EXPECT_EQ(Qel::typeNode(node->name())->base(), base);
  EXPECT_EQ(Qel::typeNode("QelTest::NeverRegistered"), nullptr);
}

TEST_F(TypeRegistryTest, RegistrationOrderIsKept) {
  const TypeNode* a = Qel::typeNodeIs(declare("First"));
  const TypeNode* b = Qel::typeNodeIs(declare("Second"));
  const TypeNode* c = Qel::typeNodeIs(declare("Third"));
  std::vector<const TypeNode*> all = Qel::typeNodes();
  ASSERT_GE(all.size(), 3u);
  EXPECT_EQ(std::vector<const TypeNode*>(all.end() - 3, all.end()),
            (std::vector<const TypeNode*>{a, b, c}));
}

TEST_F(TypeRegistryTest, DuplicateNameRaisesNameInUseAndKeepsTheFirst) {
  const TypeNode* first = Qel::typeNodeIs(declare("Twice"));
  std::size_t count = Qel::typeNodes().size();
  EXPECT_THROW(Qel::typeNodeIs(new TypeNode(first->name(), Kind::value)), Qel::NameInUseException);
  EXPECT_EQ(Qel::typeNode(first->name()), first);
  EXPECT_EQ(Qel::typeNodes().size(), count);
}

TEST_F(TypeRegistryTest, NullNodeIsRangeException) {
  EXPECT_THROW(Qel::typeNodeIs(nullptr), Qel::RangeException);
}

TEST_F(TypeRegistryTest, DirReportsItsRegisteredType) {
  const TypeNode* dirType = Qel::typeNode("Qel::Dir");
  ASSERT_NE(dirType, nullptr);
  EXPECT_EQ(dirType->kind(), Kind::entity);
  EXPECT_EQ(Qel::dirFactory("d")->fwkType(), dirType);
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

TEST_F(EnumTypeTest, NumberAndNameGiveEachOther) {
  Qel::String name;
  unsigned int number = 0;
  EXPECT_TRUE(type_->enumName(2, &name));
  EXPECT_EQ(name, "green");
  EXPECT_TRUE(type_->enumNumber("blue", &number));
  EXPECT_EQ(number, 4u);
}

TEST_F(EnumTypeTest, UnknownNumberOrNameIsFalseAndLeavesTheOutputAlone) {
  Qel::String name("unchanged");
  unsigned int number = 99;
  EXPECT_FALSE(type_->enumName(3, &name));
  EXPECT_FALSE(type_->enumNumber("purple", &number));
  EXPECT_FALSE(type_->enumNumber("Green", &number));  // names are case-sensitive
  EXPECT_EQ(name, "unchanged");
  EXPECT_EQ(number, 99u);
}

TEST_F(EnumTypeTest, EnumeratorsKeepDeclarationOrder) {
  std::vector<std::pair<Qel::String, unsigned int>> expected = {
      {"red", 1}, {"green", 2}, {"blue", 4}};
  EXPECT_EQ(type_->enumerators(), expected);
}

TEST_F(EnumTypeTest, TextFormIsTheNameOrElseTheNumber) {
  EXPECT_EQ(Qel::enumToStrep(*type_, 4), "blue");
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
Widget& asWidget(Qel::PtrInterface& o) {
  return static_cast<Widget&>(o);
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
        .operationIs("grow", [](Qel::PtrInterface& o) { ++asWidget(o).grown; });
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

TEST_F(ReflectionTest, ConstantIsFoundThroughEveryBase) {
  EXPECT_EQ(base_->constant("limit"), "16");
  EXPECT_EQ(middle_->constant("limit"), "16");
  EXPECT_EQ(leaf_->constant("limit"), "16");
}

TEST_F(ReflectionTest, DerivedDeclarationHidesTheBaseOne) {
  EXPECT_EQ(leaf_->constant("shadowed"), "'middle'");
  EXPECT_EQ(base_->constant("shadowed"), "'base'");
}

TEST_F(ReflectionTest, AttributeIsFoundThroughEveryBaseAndReadsTheObjectEachTime) {
  EXPECT_EQ(leaf_->attribute(widget_, "size"), "3");
  EXPECT_EQ(leaf_->attribute(widget_, "grown"), "0");
  widget_.size = 5;
  EXPECT_EQ(base_->attribute(widget_, "size"), "5");
}

TEST_F(ReflectionTest, OperationActsOnTheObject) {
  base_->operationDo(widget_, "grow");
  leaf_->operationDo(widget_, "grow");
  EXPECT_EQ(widget_.grown, 2u);
}

TEST_F(ReflectionTest, UnknownOrDerivedOnlyMemberNamesAreRangeException) {
  EXPECT_THROW(leaf_->constant("nope"), Qel::RangeException);
  EXPECT_THROW(leaf_->attribute(widget_, "nope"), Qel::RangeException);
  EXPECT_THROW(leaf_->operationDo(widget_, "nope"), Qel::RangeException);
  // Nor does a base see the members of derived types.
  EXPECT_THROW(base_->attribute(widget_, "grown"), Qel::RangeException);
}

TEST_F(ReflectionTest, MemberKindsAreSeparate) {
  EXPECT_THROW(base_->constant("size"), Qel::RangeException);
  EXPECT_THROW(base_->attribute(widget_, "limit"), Qel::RangeException);
  EXPECT_THROW(base_->operationDo(widget_, "size"), Qel::RangeException);
}

class ValueTypeTest : public ::testing::Test {
 protected:
  ValueTypeTest() {
    Qel::Ptr<TypeNode> node = declare("Count", Kind::value);
    node->parserIs([](const Qel::String& text) -> Qel::Ptr<Qel::ValueBoxBase> {
          return new Qel::ValueBox<unsigned int>(Qel::strepToValue<unsigned int>(text));
        })
        .defaultIs(
            []() -> Qel::Ptr<Qel::ValueBoxBase> { return new Qel::ValueBox<unsigned int>(7); });
    count_ = Qel::typeNodeIs(node);
    bare_ = Qel::typeNodeIs(declare("Bare", Kind::value));
  }

  static unsigned int countIn(const Qel::Ptr<Qel::ValueBoxBase>& box) {
    auto count = Qel::ptrDynamicCast<Qel::ValueBox<unsigned int>>(box);
    return count ? count->value : 0xdeadu;
  }

  const TypeNode* count_;
  const TypeNode* bare_;
};

TEST_F(ValueTypeTest, ValueIsBuiltFromItsTextFormOrItsMaker) {
  Qel::Ptr<Qel::ValueBoxBase> box = count_->valueFromStrep("12");
  EXPECT_EQ(countIn(box), 12u);
  EXPECT_EQ(box->strep(), "12");
  EXPECT_EQ(countIn(count_->defaultValue()), 7u);
}

TEST_F(ValueTypeTest, TypeWithoutParserOrDefaultIsRangeException) {
  EXPECT_THROW(bare_->valueFromStrep("12"), Qel::RangeException);
  EXPECT_THROW(bare_->defaultValue(), Qel::RangeException);
}

TEST(ValueBoxTest, PrintsItsValueInTextForm) {
  EXPECT_EQ(Qel::ValueBox<Qel::String>("it's").strep(), "'it\\'s'");
  EXPECT_EQ(Qel::ValueBox<double>(1.0).strep(), "1.0");
}

}  // namespace
