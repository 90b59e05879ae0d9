// Calculation: drives a number input with one arithmetic operation on two numbers, either of
// which may itself be animated, linked or modified.
#include <cstdint>

#include "module/image_model.h"
#include "module/operator_contract.h"
#include "module/registry.h"
#include "tools/modifier/modifier_tools.h"

namespace kestrion::tools {

namespace {

constexpr uint32_t kClassId = FourCC("Calc");

enum CalculationInput { FirstOperand, OperatorChoice, SecondOperand, kInputCount };
enum Operation : uint32_t { Add = 0, Subtract = 1, Multiply = 2, Divide = 3 };

// The result of operation `op` (the Operator value truncated, as an unsigned word): a division
// by +0 or -0 gives 0, and an operation outside the list (a negative value among them) gives a.
double Calculate(double a, uint32_t op, double b) {
  switch (op) {
    case Add: return a + b;
    case Subtract: return a - b;
    case Multiply: return a * b;
    case Divide: return b == 0.0 ? 0.0 : a / b;
    default: return a;
  }
}

class Calculation final : public ThreadedOperator {
 public:
  Calculation(Registry* reg, CArchive* ar, TagList* tags) : ThreadedOperator(reg, ar, tags) {
    // clang-format off
    const module::InputDecl table[kInputCount] = {
      {"First Operand",  vtype::Number, ImageInputId(1), {Tag(in::Control, control::Dial)}},
      {"Operator",       vtype::Number, FourCC("Oper"),  {Tag(in::Control, control::DropDown), Tag(in::ListEntry, "Add"), Tag(in::ListEntry, "Subtract"),
                                                          Tag(in::ListEntry, "Multiply"), Tag(in::ListEntry, "Divide")}},
      {"Second Operand", vtype::Number, ImageInputId(2), {Tag(in::Control, control::Dial)}},
    };
    // clang-format on
    module::DeclareInputs(this, table, in_);
    result_ = AddOutput("Result", vtype::Number, ImageOutputId(1));
    if (ar) module::SkipRecordEnd(ar);
  }

  uint32_t Save(CArchive* ar, TagList* tags) override { return module::SaveWithoutFields(this, kClassId, ar, tags); }

  void GetTitle(char* title) override { module::ModifierTitle(*this, title); }

  uint32_t Process(Request* req) override {
    const double a = module::NumberInput(req, in_[FirstOperand]), b = module::NumberInput(req, in_[SecondOperand]);
    const auto op = uint32_t(module::TruncToInt(module::NumberInput(req, in_[OperatorChoice])));
    return req->SetOutputData(result_, new Number(Calculate(a, op, b)));
  }

 private:
  Input* in_[kInputCount];
  Output* result_;
};

}  // namespace

Object* NewCalculation(Registry* reg, CArchive* ar, TagList* tags) {
  return module::Factory<Calculation>(reg, ar, tags);
}

}  // namespace kestrion::tools
