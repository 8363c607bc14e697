// SPDX-License-Identifier: MIT
// The examples do what they say, with a queue manager of the operator's program.
#include "tools/kvr_program.h"

namespace kvr::test {
namespace {

class Examples : public ProgramTest {
  protected:
    /// Runs an example, which must succeed; gives what it wrote to standard error.
    std::string example(const std::string& line, const std::string& input) const {
        file("in", input);
        EXPECT_EQ(start("exec " + line, "example").result(), 0) << text("example.err");
        return text("example.err");
    }
};

TEST_F(Examples, ProduceAndConsumeWithAPoisonMessage) {
    done("define queue ANSWERS");
    done("define queue ASIDE");
    EXPECT_EQ(example(PRODUCER " Q", "3\npoison\n-4\n"), "");
    EXPECT_THAT(example(CONSUMER " Q ANSWERS ASIDE", ""), AllOf(HasSubstr("'poison', try 3"), Not(HasSubstr("try 4"))));
    EXPECT_EQ(done("get ANSWERS --all --raw"), "916");
    EXPECT_EQ(done("get ASIDE --raw"), "poison");
    EXPECT_EQ(shown("show queue Q")[0]["depth"], 0);
}

} // namespace
} // namespace kvr::test
