// The factory every tool class shares: allocate, construct on the storage, and undo the
// allocation when construction fails; and the host's way into it through the class registry.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "module/registry.h"
#include "host/base/archive.h"
#include "host/graph/operator.h"
#include "host/graph/registry.h"

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
extern "C" size_t __sanitizer_get_current_allocated_bytes();
#else
#include <malloc.h>
#endif

namespace kestrion::module {
namespace {

// Bytes the process holds on its heap now.
size_t HeapInUse() {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  return __sanitizer_get_current_allocated_bytes();
#else
  const struct mallinfo2 m = mallinfo2();
  return m.uordblks + m.hblkhd;
#endif
}

// What the tool constructor saw, and how the allocator was used.
struct Trace {
  int allocations = 0;
  size_t size = 0;
  void* storage = nullptr;
  int constructions = 0;
  void* constructed_at = nullptr;
  Registry* reg = nullptr;
  CArchive* ar = nullptr;
  TagList* tags = nullptr;
  bool fail_allocation = false;
  bool throw_in_constructor = false;
};
Trace trace;

void* RecordingAllocator(size_t size) {
  ++trace.allocations;
  trace.size = size;
  trace.storage = trace.fail_allocation ? nullptr : ::operator new(size, std::nothrow);
  return trace.storage;
}

class ConstructorFault : public std::runtime_error {
 public:
  ConstructorFault() : std::runtime_error("the constructor gave up") {}
};

// Large, so that storage that is not given back shows in the heap totals.
class BigTool final : public Operator {
 public:
  BigTool(Registry* reg, CArchive* ar, TagList* tags) : Operator(reg, ar, tags) {
    ++trace.constructions;
    trace.constructed_at = this;
    trace.reg = reg;
    trace.ar = ar;
    trace.tags = tags;
    AddInput("Value", vtype::Number, FourCC("Valu"));
    if (trace.throw_in_constructor) throw ConstructorFault();
  }
  uint32_t Process(Request*) override { return 1; }
  unsigned char payload[8 << 20];
};

class FactoryTest : public ::testing::Test {
 protected:
  void SetUp() override { trace = Trace(); }
};

TEST_F(FactoryTest, AFailedAllocationGivesNullAndNoConstruction) {
  trace.fail_allocation = true;
  EXPECT_EQ(CreateTool<BigTool>(&RecordingAllocator, nullptr, nullptr, nullptr), nullptr);
  EXPECT_EQ(trace.allocations, 1);
  EXPECT_EQ(trace.size, sizeof(BigTool));
  EXPECT_EQ(trace.constructions, 0);
}

TEST_F(FactoryTest, ConstructsOnTheAllocatedStorageWithTheArgumentsUnchanged) {
  Registry reg(nullptr, "Unlisted", {});
  CArchive record;  // a base record: no name, position (0, 0), no saved inputs, no attributes
  for (int i = 0; i < 5; ++i) record.WriteWord(0);
  CArchive ar(record.Bytes());
  TagList tags{Tag(in::Default, 1.0)};
  Object* obj = CreateTool<BigTool>(&RecordingAllocator, &reg, &ar, &tags);
  ASSERT_NE(obj, nullptr);
  EXPECT_EQ(trace.allocations, 1);
  EXPECT_EQ(trace.size, sizeof(BigTool));
  EXPECT_EQ(trace.constructions, 1);
  EXPECT_EQ(trace.constructed_at, trace.storage);
  EXPECT_EQ(static_cast<void*>(dynamic_cast<BigTool*>(obj)), trace.storage);
  EXPECT_EQ(trace.reg, &reg);
  EXPECT_EQ(trace.ar, &ar);
  EXPECT_EQ(trace.tags, &tags);
  EXPECT_TRUE(ar.AtEnd()) << "the base record was not read from the archive";
  EXPECT_EQ(obj->References(), 1);
  obj->Recycle();

  // Null archive and tags pass through as null.
  obj = CreateTool<BigTool>(&RecordingAllocator, &reg, nullptr, nullptr);
  ASSERT_NE(obj, nullptr);
  EXPECT_EQ(trace.ar, nullptr);
  EXPECT_EQ(trace.tags, nullptr);
  obj->Recycle();
}

TEST_F(FactoryTest, AThrowingConstructorReleasesTheStorageAndTheExceptionPassesOn) {
  trace.throw_in_constructor = true;
  const size_t before = HeapInUse();
  EXPECT_THROW(CreateTool<BigTool>(&RecordingAllocator, nullptr, nullptr, nullptr), ConstructorFault);
  EXPECT_LT(HeapInUse(), before + sizeof(BigTool) / 2) << "the tool's storage was kept";
  EXPECT_EQ(trace.allocations, 1);
  EXPECT_EQ(trace.constructions, 1);

  // The same through the factory a class record carries.
  const size_t again = HeapInUse();
  EXPECT_THROW(Factory<BigTool>(nullptr, nullptr, nullptr), ConstructorFault);
  EXPECT_LT(HeapInUse(), again + sizeof(BigTool) / 2);
}

// The host reaches a factory through the registry: by class id, with the archive and tags.
TEST_F(FactoryTest, TheRegistryFindsTheFactoryByTagValue) {
  auto record = std::make_unique<Registry>(
      &ClassRegistry, "FactoryProbe",
      TagList{Tag(reg::ClassInit, &Operator::RegInit), Tag(reg::ClassCleanup, &Operator::RegCleanup),
              Tag(reg::Factory, &Factory<BigTool>), Tag(reg::ClassId, FourCC("fPrb")),
              Tag(reg::ClassType, classtype::ImageTool)});
  TagList tags;
  Object* obj = ClassRegistry->New(reg::ClassId, FourCC("fPrb"), nullptr, &tags);
  ASSERT_NE(obj, nullptr);
  EXPECT_EQ(trace.reg, record.get());
  EXPECT_EQ(trace.tags, &tags);
  auto* op = dynamic_cast<Operator*>(obj);
  ASSERT_NE(op, nullptr);
  EXPECT_EQ(op->Class(), record.get());
  obj->Recycle();

  EXPECT_EQ(ClassRegistry->New(reg::ClassId, FourCC("fPrX"), nullptr, nullptr), nullptr);
  EXPECT_EQ(trace.constructions, 1) << "no factory runs for an unknown class id";

  record.reset();
  EXPECT_EQ(ClassRegistry->FindByClassId(FourCC("fPrb")), nullptr) << "a destroyed record leaves the list";
}

// Every catalogue class's factory makes a working operator of that class, new or from its own
// saved record.
TEST_F(FactoryTest, EveryCatalogueClassCreatesAndReloadsItsTool) {
  const std::vector<Registry*> records = ClassRegistry->Records();
  ASSERT_FALSE(records.empty());
  for (Registry* r : records) {
    SCOPED_TRACE(r->Name());
    Ref<Object> made = Ref<Object>::Adopt(ClassRegistry->New(reg::ClassId, r->ClassId(), nullptr, nullptr));
    auto* op = dynamic_cast<Operator*>(made.get());
    ASSERT_NE(op, nullptr);
    EXPECT_EQ(op->Class(), r);

    CArchive out;
    ASSERT_EQ(op->Save(&out, nullptr) & 1, 1u);
    CArchive in(out.Bytes());
    // The Preview Saver writes the Saver's id on purpose: its documents reload as Savers.
    const uint32_t expected_id = r->Name() == "PreviewSaver" ? FourCC("Save") : r->ClassId();
    ASSERT_EQ(in.ReadWord(), expected_id) << "a record starts with its class id";
    Ref<Object> loaded = Ref<Object>::Adopt(r->Create(&in, nullptr));
    ASSERT_NE(dynamic_cast<Operator*>(loaded.get()), nullptr);
    EXPECT_TRUE(in.AtEnd()) << "the tool read " << in.Position() << " of " << out.Bytes().size() << " bytes";
  }
}

}  // namespace
}  // namespace kestrion::module
