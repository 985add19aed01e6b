// The interpreter the Python-facing C++ tests run in: started once before the first test, ended after the last.
#include <Python.h>
#include <gtest/gtest.h>

namespace {

class Interpreter : public ::testing::Environment {
public:
    void SetUp() override { Py_InitializeEx(0); }
    void TearDown() override { Py_FinalizeEx(); }
};

const auto* const kInterpreter = ::testing::AddGlobalTestEnvironment(new Interpreter);

}  // namespace
