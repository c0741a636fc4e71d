#include "solver/plugin_loader.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "solver/plugin_support.h"
#include "support/death.h"
#include "zorp.h"

namespace {

using zorp::test::DeathTestBase;
using zorp::test::escaped_regex;
using zorp::test::test_plugin_dir;

// Restores ZORP_LIB_DIR after a test that moves it.
class PluginDirectory : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* old = std::getenv("ZORP_LIB_DIR");
    had_ = old != nullptr;
    if (had_) old_ = old;
  }
  void TearDown() override {
    if (had_)
      setenv("ZORP_LIB_DIR", old_.c_str(), 1);
    else
      unsetenv("ZORP_LIB_DIR");
  }

 private:
  bool had_ = false;
  std::string old_;
};

TEST_F(PluginDirectory, EnvironmentFolderGainsOneSlash) {
  setenv("ZORP_LIB_DIR", "/opt/solvers", 1);
  EXPECT_EQ(zorp::plugin_directory(true), "/opt/solvers/");
  setenv("ZORP_LIB_DIR", "/opt/solvers/", 1);
  EXPECT_EQ(zorp::plugin_directory(true), "/opt/solvers/");
  EXPECT_EQ(zorp::vell_solver_path("c32e64"), "/opt/solvers/vellsolver_c32e64.so");
  EXPECT_EQ(zorp::mirk_solver_path(), "/opt/solvers/mirk_c32e64.so");
}

// The library code lives in the test program here, so "beside the library" is
// the test program's own folder, where the build put the fake tallon plug-in.
TEST_F(PluginDirectory, UnsetOrEmptyFallsBackToTheLibraryFolder) {
  unsetenv("ZORP_LIB_DIR");
  const std::string own_folder = zorp::plugin_directory(true);
  EXPECT_EQ(own_folder, zorp::plugin_directory(false));
  EXPECT_EQ(own_folder.back(), '/');
  EXPECT_EQ(access((own_folder + "tallon_c32e64.so").c_str(), R_OK), 0) << own_folder;
  setenv("ZORP_LIB_DIR", "", 1);
  EXPECT_EQ(zorp::plugin_directory(true), own_folder);
}

TEST_F(PluginDirectory, TallonIgnoresTheEnvironment) {
  setenv("ZORP_LIB_DIR", "/opt/solvers", 1);
  EXPECT_EQ(zorp::tallon_solver_path(), zorp::plugin_directory(false) + "tallon_c32e64.so");
  EXPECT_NE(zorp::plugin_directory(false), "/opt/solvers/");
}

TEST(SolverType, NamesTheBuildWidths) {
  EXPECT_STREQ(zorp_expr_solver_type(), "c32e64");
  EXPECT_EQ(zorp_expr_solver_type(), zorp_expr_solver_type()) << "one cached text per thread";
  ASSERT_TRUE(zorp::type_widths("c64e128").has_value());
  EXPECT_EQ(zorp::type_widths("c64e128")->coeff_bytes, 8u);
  EXPECT_EQ(zorp::type_widths("c64e128")->energy_bytes, 16u);
  EXPECT_EQ(zorp::type_widths("c16e32")->coeff_bytes, 2u);
  EXPECT_FALSE(zorp::type_widths("c8e8").has_value());
}

class PluginLoaderDeathTest : public DeathTestBase {};

TEST_F(PluginLoaderDeathTest, MissingFileNamesThePathAndTheReason) {
  const std::string path = "/nonexistent/folder/vellsolver_c32e64.so";
  EXPECT_DEATH(
      {
        setenv("ZORP_LIB_DIR", "/nonexistent/folder", 1);
        zorp::load_vell_solver(nullptr);
      },
      "^zorp: VellSolver: failed to load " + escaped_regex(path) + ": .*No such file");
}

TEST_F(PluginLoaderDeathTest, MissingRequiredSymbolIsNamed) {
  EXPECT_DEATH(
      {
        setenv("ZORP_LIB_DIR", test_plugin_dir("no_list_destroy").c_str(), 1);
        zorp::load_vell_solver("c32e64");
      },
      "^zorp: VellSolver: symbol not found: "
      "zorp_vell_solver_sol_list_destroy\n");
  EXPECT_DEATH(
      {
        setenv("ZORP_LIB_DIR", test_plugin_dir("missing_search").c_str(), 1);
        zorp::load_mirk_solver();
      },
      "^zorp: MIRKSolver: symbol not found: zorp_mirk_cpu_solver_search\n");
  // The tallon loader reads the test program's own folder, where its fake lacks
  // the search.
  EXPECT_DEATH(
      {
        setenv("ZORP_LIB_DIR", test_plugin_dir("recording").c_str(), 1);
        zorp::load_tallon_solver();
      },
      "^zorp: TallonSolver: symbol not found: zorp_tallon_search\n");
}

TEST_F(PluginLoaderDeathTest, OptionalSymbolsAreNullWhenAbsent) {
  EXPECT_WITH_PLUGINS(test_plugin_dir("required_only"), [] {
    const zorp::VellSolverTable& t = zorp::load_vell_solver(nullptr);
    if (!t.create || !t.search || !t.register_callback) return std::string("required slot empty");
    if (t.get_info || t.add_constraint || t.set_cons_shape || t.create_int) return std::string("optional slot filled");
    return std::string();
  });
}

TEST_F(PluginLoaderDeathTest, RepeatLoadsReuseTheTableWithoutTheFile) {
  EXPECT_WITH_PLUGINS(test_plugin_dir("recording"), [] {
    const zorp::VellSolverTable* first = &zorp::load_vell_solver(nullptr);
    setenv("ZORP_LIB_DIR", "/nonexistent/folder", 1);
    if (&zorp::load_vell_solver("c32e64") != first) return std::string("second table for the same tag");
    if (&zorp::load_vell_solver("") != first) return std::string("empty tag is not the default");
    return std::string();
  });
}

TEST_F(PluginLoaderDeathTest, MirkWithoutGpuSolverServesTheCpuSide) {
  EXPECT_WITH_PLUGINS(test_plugin_dir("cpu_only"), [] {
    const zorp::MirkSolverTable& t = zorp::load_mirk_solver();
    if (!t.cpu_solver_create || !t.cpu_sol_list_destroy) return std::string("cpu slots empty");
    if (t.solver_create || t.solver_search || t.int_create) return std::string("gpu slots filled");
    return std::string();
  });
}

TEST_F(PluginLoaderDeathTest, MirkIntegerEngineIsAllOrNothing) {
  EXPECT_WITH_PLUGINS(test_plugin_dir("int_without_hint"), [] {
    const zorp::MirkSolverTable& t = zorp::load_mirk_solver();
    if (t.int_create != nullptr) return std::string("engine without int_hint counted as present");
    if (t.int_round2 == nullptr) return std::string("the present symbols should still be read");
    return std::string();
  });
  EXPECT_WITH_PLUGINS(test_plugin_dir("int_engine"), [] {
    const zorp::MirkSolverTable& t = zorp::load_mirk_solver();
    if (t.int_create == nullptr || t.int_hint == nullptr) return std::string("complete engine not found");
    if (t.solver_create == nullptr || t.solver_search == nullptr) return std::string("gpu solver entries not read");
    return std::string();
  });
}

}  // namespace
