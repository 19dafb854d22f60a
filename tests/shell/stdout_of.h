// stdout_of.h - what a call prints on stdout, for the in-process tests of the tool's printers.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <string>

namespace kvn_test {

template <class F> std::string stdout_of(F &&f)
{
    testing::internal::CaptureStdout();
    f();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

} // namespace kvn_test
