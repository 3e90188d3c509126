#include "FunctionName.h"

#include <gtest/gtest.h>

#include <string>

namespace {

std::string NameOf(const char* symbol)
{
    char name[256];
    zorhost::WriteFunctionName(symbol, name, sizeof(name));
    return name;
}

TEST(FunctionNameTest, FunctionsAreNamedAsInTheirSource)
{
    EXPECT_EQ(NameOf("_Z8HangHereP5sem_t"), "HangHere");
    EXPECT_EQ(NameOf("_ZN6TCTask4SendEP7TSEventbb"), "TCTask::Send");
    EXPECT_EQ(NameOf("_ZN3zor5Reply4WaitEv"), "zor::Reply::Wait");
    EXPECT_EQ(NameOf("_ZNK7TCQueue4SizeEv"), "TCQueue::Size");
    EXPECT_EQ(NameOf("_ZN12_GLOBAL__N_15CrashEv"), "(anonymous namespace)::Crash");
    EXPECT_EQ(NameOf("_ZN7TCQueueC2Ev"), "TCQueue::TCQueue");
    EXPECT_EQ(NameOf("_ZN7TCQueueD0Ev"), "TCQueue::~TCQueue");
    EXPECT_EQ(NameOf("_ZN5MeterclEi"), "Meter::operator()");
}

TEST(FunctionNameTest, ArgumentsOfTemplatesAreLeftOut)
{
    EXPECT_EQ(NameOf("_ZNKSt8functionIFvvEEclEv"), "std::function<...>::operator()");
    EXPECT_EQ(NameOf("_ZN6WorkerI6TCTaskE7t_OnRunEPK7TSEvent"), "Worker<...>::t_OnRun");
    EXPECT_EQ(NameOf("_ZN5ArrayIiLj16ELb1EE5ClearEv"), "Array<...>::Clear");
    EXPECT_EQ(NameOf("_ZN3MapINSt7__cxx1112basic_stringIcSt11char_traitsIcESaIcEEEiE3GetERKS6_"),
              "Map<...>::Get");
    EXPECT_EQ(NameOf("_ZSt4moveIRiEONSt16remove_referenceIT_E4typeEOS2_"), "std::move<...>");
    EXPECT_EQ(
        NameOf("_ZNSt6thread11_State_implINS_8_InvokerISt5tupleIJZ4MainvEUlvE0_EEEEE6_M_runEv"),
        "std::thread::_State_impl<...>::_M_run");
    EXPECT_EQ(NameOf("_ZN3FooILN3Bar4KindE1EA16_cE3RunEv"), "Foo<...>::Run");
}

TEST(FunctionNameTest, WhatIsNotKnownStaysAsItIs)
{
    for (const char* symbol : {"", "main", "__libc_start_main", "_Z", "_ZN", "_ZN4", "_ZN9Short",
                               "_ZN3FooI", "_ZTV6TCTask", "_ZN3FoocvbEv", "_ZN99999999999999999A",
                               "_ZNSt", "_ZN3FooILi5", "_ZZ4MainvENKUlvE_clEv"}) {
        EXPECT_EQ(NameOf(symbol), symbol);
    }
}

TEST(FunctionNameTest, LongNamesAreCutOffAtTheBuffersEnd)
{
    char name[8];
    zorhost::WriteFunctionName("_ZN6TCTask4SendEP7TSEventbb", name, sizeof(name));
    EXPECT_STREQ(name, "TCTask:");
    zorhost::WriteFunctionName("__libc_start_main", name, sizeof(name));
    EXPECT_STREQ(name, "__libc_");
    zorhost::WriteFunctionName("_ZN6TCTask4SendEP7TSEventbb", name, 1);
    EXPECT_STREQ(name, "");
}

} // namespace
