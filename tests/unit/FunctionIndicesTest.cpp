#include "ZorFunctionIndices.h"

#include <gtest/gtest.h>

#include <ostream>
#include <random>
#include <string>
#include <string_view>
#include <vector>

namespace zor {

constexpr bool operator==(const FunctionIndices& a, const FunctionIndices& b)
{
    return a.scope == b.scope && a.classBegin == b.classBegin && a.classEnd == b.classEnd &&
           a.functionBegin == b.functionBegin && a.functionEnd == b.functionEnd;
}

inline std::ostream& operator<<(std::ostream& out, const FunctionIndices& indices)
{
    return out << indices.scope << ", " << indices.classBegin << ", " << indices.classEnd << ", "
               << indices.functionBegin << ", " << indices.functionEnd;
}

} // namespace zor

namespace {

using zor::BaseName;
using zor::FindFunctionIndices;
using zor::FunctionIndices;

/// A signature in which the wanted names are marked: "@class@", "#function#", and "$" where the
/// qualifier of the class begins. "" after the text means that there is nothing of the kind.
struct TSMarkedSignature
{
    const char* name;
    const char* marked;
};

void PrintTo(const TSMarkedSignature& signature, std::ostream* out)
{
    *out << signature.marked;
}

/// The signature without its marks, and what the marks say.
std::string Unmark(std::string_view marked, FunctionIndices* wanted)
{
    std::string text;
    bool inClass = false;
    bool inFunction = false;
    for (const char c : marked) {
        const int at = static_cast<int>(text.size());
        if (c == '$') {
            wanted->scope = at;
        } else if (c == '@') {
            (inClass ? wanted->classEnd : wanted->classBegin) = inClass ? at - 1 : at;
            inClass = !inClass;
        } else if (c == '#') {
            (inFunction ? wanted->functionEnd : wanted->functionBegin) = inFunction ? at - 1 : at;
            inFunction = !inFunction;
        } else {
            text += c;
        }
    }
    if (wanted->classBegin < 0) {
        wanted->classBegin = wanted->functionBegin;
        wanted->classEnd = wanted->functionEnd;
    }
    return text;
}

class FunctionIndicesTest : public ::testing::TestWithParam<TSMarkedSignature>
{};

TEST_P(FunctionIndicesTest, FindsTheMarkedNames)
{
    FunctionIndices wanted;
    const std::string text = Unmark(GetParam().marked, &wanted);
    EXPECT_EQ(FindFunctionIndices(text), wanted) << "in \"" << text << "\"";
}

std::string NameOf(const ::testing::TestParamInfo<TSMarkedSignature>& info)
{
    return info.param.name;
}

// What g++ writes.
const TSMarkedSignature GCC_SIGNATURES[] = {
    {"FreeFunction", "void #Free#(int)"},
    {"FreeFunctionOfThreeTypeWords", "long long unsigned int #StaticFree#()"},
    {"FreeFunctionWithEllipsis", "const char* #Pointer#(const char*, ...)"},
    {"Member", "void @Plain@::#Member#(int, const char*)"},
    {"StaticMember", "static void @Plain@::#Static#()"},
    {"ConstMember", "void @Plain@::#Const#() const"},
    {"RefQualifiedMember", "void @Plain@::#Ref#() &&"},
    {"VolatileMember", "void @Plain@::#Vol#() const volatile"},
    {"VirtualMember", "virtual unsigned int @Plain@::#Virt#()"},
    {"NestedClass", "void $Plain::Nested::@Deep@::#Go#()"},
    {"NestedClassConstructor", "$Plain::@Nested@::#Nested#()"},
    {"NestedClassDestructor", "$Plain::Nested::@Deep@::#~Deep#()"},
    {"Namespace",
     "static std::map<std::__cxx11::basic_string<char>, std::vector<int> > "
     "$ns::@Cls@::#Run#(int)"},
    {"NestedNamespace", "void $ns::inner::@C@::#m_Do#()"},
    {"AnonymousNamespaceFunction", "void {anonymous}::#AnonFree#()"},
    {"AnonymousNamespaceClass", "void ${anonymous}::@AnonCls@::#Run#(int)"},
    {"AnonymousNamespaceConstructor", "${anonymous}::@AnonCls@::#AnonCls#()"},
    {"AnonymousNamespaceInNamespace", "void $ns::{anonymous}::@Hid@::#Run#()"},
    {"NamespaceInAnonymousNamespace", "void ${anonymous}::in::@X@::#R#()"},
    {"UnnamedStruct", "void<unnamed struct>::#Run#()"},
    {"TemplateClassMember", "void @Tmpl@<T>::#Run#(T) [with T = std::vector<int>]"},
    {"TemplateClassConstructor", "@Tmpl@<T>::#Tmpl#() [with T = std::vector<int>*]"},
    {"TemplateClassDestructor", "@Tmpl@<T>::#~Tmpl#() [with T = std::vector<int>]"},
    {"TemplateClassStatic", "static T @Tmpl@<T>::#Stat#() [with T = int]"},
    {"TemplateOfTwo",
     "void @Two@<T, N>::#Run#() [with T = std::__cxx11::basic_string<char>; "
     "int N = 3]"},
    {"ClassInTemplateClass", "void $Tmpl<T>::@In@::#R#() [with T = int]"},
    {"TemplateMemberOfTemplateClass",
     "U @Tmpl@<T>::#Both#(U) [with U = int; T = std::vector<int>]"},
    {"TemplateFunction", "T #TFree#(T) [with T = std::__cxx11::basic_string<char>]"},
    {"TemplateFunctionOfFunctions", "void #TFree2#(std::vector<T>, void (*)(T)) [with T = int]"},
    {"VariadicTemplate", "void #Var#(A ...) [with A = {int, double, const char*}]"},
    {"Constructor", "@Plain@::#Plain#()"},
    {"TemplateConstructor", "@A@::#A#(F, int) [with F = main(int, char**)::<lambda()>]"},
    {"Destructor", "@Plain@::#~Plain#()"},
    {"VirtualDestructor", "virtual @Base@::#~Base#()"},
    {"OperatorCall", "bool @Plain@::#operator()#(int) const"},
    {"OperatorIndex", "int @Plain@::#operator[]#(int)"},
    {"OperatorShiftLeft", "Plain& @Plain@::#operator<<#(int)"},
    {"OperatorShiftLeftAssign", "A @A@::#operator<<=#(int)"},
    {"OperatorShiftRightOfTemplates",
     "ns::W<T> @ns@::#operator>>#(const W<T>&, int) [with T = int]"},
    {"OperatorLess", "bool @Tmpl@<T>::#operator<#(int) [with T = std::vector<int>]"},
    {"OperatorArrow", "Plain* @Plain@::#operator->#()"},
    {"OperatorArrowStar", "A* @A@::#operator->*#(int)"},
    {"OperatorComma", "Plain @Plain@::#operator,#(int)"},
    {"FreeOperator", "bool #operator==#(const Plain&, const Plain&)"},
    {"OperatorNew", "static void* @Plain@::#operator new#(size_t)"},
    {"OperatorNewArray", "static void* @Plain@::#operator new []#(size_t)"},
    {"OperatorDeleteArray", "static void @Plain@::#operator delete []#(void*)"},
    {"OperatorBool", "@Plain@::#operator bool#() const"},
    {"ConversionToPointer", "@Plain@::#operator const char*#() const"},
    {"ConversionToTemplate", "@Plain@::#operator std::vector<int>#() const"},
    {"ConversionToTemplateOfFunction", "@Conv@::#operator Std<int (*)(int)>#()"},
    {"ConversionOfTemplateClass", "@Tmpl@<T>::#operator Tmpl<T*>#() [with T = std::vector<int>]"},
    {"LambdaInMember", "@Plain@::#Lambda#()::<lambda(int)>"},
    {"LambdaInLambdaInMember", "@Plain@::#Lambda#()::<lambda()>::<lambda()>"},
    {"LambdaInTemplateMember", "@TL@<std::vector<int> >::#M#()::<lambda(std::vector<int>)>"},
    {"LambdaInOperatorCall", "@A@::#operator()#(int)::<lambda()>"},
    {"LambdaInOperatorLess", "@A@::#operator<#(int)::<lambda()>"},
    {"LambdaInConversion", "@A@::#operator bool#()::<lambda()>"},
    {"LambdaInDestructor", "@A@::#~A#()::<lambda()>"},
    {"LambdaInFreeFunction", "#LamFree#()::<lambda()>"},
    {"MutableLambda", "#LamFree#()::<lambda(int, std::vector<int>)> mutable"},
    {"GenericLambda", "#LamFree#()::<lambda(auto:1)> [with auto:1 = int]"},
    {"LambdaInTemplateFunction", "#TLF#<int>(int)::<lambda(int)>"},
    {"LambdaOfANamespace", "ns::#<lambda()>#"},
    {"LambdaOfTheFile", "#<lambda(int)>#"},
    {"LocalClassOfMember", "void $Plain::Local()::@L@::#Run#()"},
    {"LocalClassConstructor", "$Plain::Local()::@L@::#L#()"},
    {"LocalClassOfFreeFunction", "void $LocalFree()::@L@::#Run#()"},
    {"LocalClassOfTemplateFunction", "void $TLF(T)::@L@::#R#() [with T = int]"},
    {"LocalClassOfTemplateMember", "void $TL<T>::M()::@L@::#R#() [with T = std::vector<int>]"},
    {"LocalClassInLambda", "void @Plain@::#Local#()::<lambda()>::M::R()"},
    {"ReturnsAFunctionPointer", "void (* #FreeFn#(int))(double)"},
    {"MemberReturnsAFunctionPointer", "void (* @Plain@::#GetFn#(int))(double)"},
    {"ReturnsAFunctionPointerOfOne", "void (* (* @B2@::#ff#(int) const)(char))(double)"},
    {"ReturnsAnArrayReference", "int (& #ArrRef#())[3]"},
    {"ReturnsAMemberPointer", "int (Plain::* #MemPtr#())(int) const"},
    {"ReturnsADataMemberPointer", "int A::* @A@::#dm#()"},
    {"ReturnsATemplateOfFunction", "std::function<void(B2&)> @B2@::#sf#()"},
    {"ReturnsADecltype",
     "decltype ((t + u)) #Trail#(T, U) [with T = int; U = double; decltype "
     "((t + u)) = double]"},
    {"ReturnsADependentType",
     "typename std::enable_if<std::is_integral<_Tp>::value, "
     "std::vector<T> >::type @A@::#k#(T) [with T = int]"},
    {"GreaterThanInATemplateArgument",
     "std::enable_if_t<(sizeof (T) > 3), T> @A@::#h#(T) [with T = int]"},
    {"TakesFunctions", "void #TakesFn#(void (*)(int, char), int (&)[3])"},
    {"TakesMemberPointers", "void @A@::#pm#(void (A::*)(int), int (*)[3])"},
    {"FunctionAsTemplateArgument", "void @FnArg@<F>::#Run#() [with bool (* F)(int) = pred]"},
    {"LiteralOperator", "int #operator\"\"_km#(long long unsigned int)"},
    {"OpeningParenthesisAsTemplateArgument", "void @Chr@<C>::#Run#() [with char C = '(']"},
    {"BracketAsTemplateArgument", "void #CFree#() [with char C = ']']"},
    {"EnumeratorAsTemplateArgument", "void @En@<e>::#Run#() [with E e = E::B]"},
};

INSTANTIATE_TEST_SUITE_P(Gcc, FunctionIndicesTest, ::testing::ValuesIn(GCC_SIGNATURES), NameOf);

// What clang++ writes.
const TSMarkedSignature CLANG_SIGNATURES[] = {
    {"FreeFunction", "void #Free#(int)"},
    {"FreeFunctionOfThreeTypeWords", "unsigned long long #StaticFree#()"},
    {"FreeFunctionWithEllipsis", "const char *#Pointer#(const char *, ...)"},
    {"Member", "void @Plain@::#Member#(int, const char *)"},
    {"StaticMember", "static void @Plain@::#Static#()"},
    {"ConstMember", "void @Plain@::#Const#() const"},
    {"RefQualifiedMember", "void @Plain@::#Ref#() &&"},
    {"VirtualMember", "virtual unsigned int @Plain@::#Virt#()"},
    {"NestedClass", "void $Plain::Nested::@Deep@::#Go#()"},
    {"NestedClassDestructor", "$Plain::Nested::@Deep@::#~Deep#()"},
    {"Namespace", "static std::map<std::string, std::vector<int>> $ns::@Cls@::#Run#(int)"},
    {"NestedNamespace", "void $ns::inner::@C@::#m_Do#()"},
    {"AnonymousNamespaceFunction", "void (anonymous namespace)::#AnonFree#()"},
    {"AnonymousNamespaceClass", "void $(anonymous namespace)::@AnonCls@::#Run#(int)"},
    {"AnonymousNamespaceConstructor", "$(anonymous namespace)::@AnonCls@::#AnonCls#()"},
    {"AnonymousNamespaceInNamespace", "void $ns::(anonymous namespace)::@Hid@::#Run#()"},
    {"NamespaceInAnonymousNamespace", "void $(anonymous namespace)::in::@X@::#R#()"},
    {"UnnamedStruct", "void (anonymous struct)::#Run#()"},
    {"TemplateClassMember", "void @Tmpl@<std::vector<int>>::#Run#(T) [T = std::vector<int>]"},
    {"TemplateClassConstructor", "@Tmpl@<std::vector<int> *>::#Tmpl#() [T = std::vector<int> *]"},
    {"TemplateClassDestructor", "@Tmpl@<std::vector<int>>::#~Tmpl#() [T = std::vector<int>]"},
    {"TemplateOfTwo",
     "void @Two@<std::basic_string<char>, 3>::#Run#() [T = "
     "std::basic_string<char>, N = 3]"},
    {"TemplateOfLambda",
     "void @H@<(lambda at p2.cpp:47:13)>::#Run#() [F = (lambda at "
     "p2.cpp:47:13)]"},
    {"ClassInTemplateClass", "void $Tmpl<int>::@In@::#R#() [T = int]"},
    {"TemplateMemberOfTemplateClass",
     "U @Tmpl@<std::vector<int>>::#Both#(U) [T = std::vector<int>, U = int]"},
    {"TemplateFunction", "T #TFree#(T) [T = std::basic_string<char>]"},
    {"TemplateFunctionOfFunctions", "void #TFree2#(std::vector<T>, void (*)(T)) [T = int]"},
    {"VariadicTemplate", "void #Var#(A...) [A = <int, double, const char *>]"},
    {"Constructor", "@Plain@::#Plain#()"},
    {"Destructor", "@Plain@::#~Plain#()"},
    {"VirtualDestructor", "virtual @Base@::#~Base#()"},
    {"OperatorCall", "bool @Plain@::#operator()#(int) const"},
    {"OperatorIndex", "int @Plain@::#operator[]#(int)"},
    {"OperatorShiftLeft", "Plain &@Plain@::#operator<<#(int)"},
    {"OperatorShiftRightOfTemplates", "W<T> @ns@::#operator>>#(const W<T> &, int) [T = int]"},
    {"OperatorLess", "bool @Tmpl@<std::vector<int>>::#operator<#(int) [T = std::vector<int>]"},
    {"OperatorArrow", "Plain *@Plain@::#operator->#()"},
    {"OperatorComma", "Plain @Plain@::#operator,#(int)"},
    {"FreeOperator", "bool #operator==#(const Plain &, const Plain &)"},
    {"OperatorNewArray", "static void *@Plain@::#operator new[]#(size_t)"},
    {"OperatorBool", "bool @Plain@::#operator bool#() const"},
    {"ConversionToPointer", "const char *@Plain@::#operator const char *#() const"},
    {"ConversionToTemplate", "std::vector<int> @Plain@::#operator vector#() const"},
    {"ConversionToPointerToTemplate",
     "std::map<int, std::vector<int>> *@Conv@::#operator std::map<int, std::vector<int> > *#() "
     "const"},
    {"ConversionToFunctionPointer", "Plain::Fn @Plain@::#operator void (*)(int)#() const"},
    {"ConversionOfTemplateClass",
     "Tmpl<T *> @Tmpl@<std::vector<int>>::#operator Tmpl#() [T = std::vector<int>]"},
    {"LambdaInMember", "auto @Plain@::#Lambda#()::(anonymous class)::operator()(int) const"},
    {"LambdaInLambdaInMember",
     "auto @Plain@::#Lambda#()::(anonymous class)::operator()()::"
     "(anonymous class)::operator()() const"},
    {"LambdaInTemplateMember",
     "auto @TL@<std::vector<int>>::#M#()::(anonymous class)::"
     "operator()(T) const [T = std::vector<int>]"},
    {"LambdaInOperatorCall", "auto @A@::#operator()#(int)::(anonymous class)::operator()() const"},
    {"LambdaInOperatorLess", "auto @A@::#operator<#(int)::(anonymous class)::operator()() const"},
    {"LambdaInConversion", "auto @A@::#operator bool#()::(anonymous class)::operator()() const"},
    {"LambdaInDestructor", "auto @A@::#~A#()::(anonymous class)::operator()() const"},
    {"LambdaInFreeFunction", "auto #LamFree#()::(anonymous class)::operator()() const"},
    {"MutableLambda", "auto #LamFree#()::(anonymous class)::operator()(int, std::vector<int>)"},
    {"GenericLambda", "auto #LamFree#()::(anonymous class)::operator()(auto) const [x:auto = int]"},
    {"LambdaInTemplateFunction", "auto #TLF#(int)::(anonymous class)::operator()(T) const"},
    {"LambdaOfANamespace", "auto ns::(anonymous class)::#operator()#() const"},
    {"LambdaOfTheFile", "auto (anonymous class)::#operator()#(int) const"},
    {"LocalClassOfMember", "void $Plain::Local()::@L@::#Run#()"},
    {"LocalClassConstructor", "$Plain::Local()::@L@::#L#()"},
    {"LocalClassOfFreeFunction", "void $LocalFree()::@L@::#Run#()"},
    {"LocalClassOfTemplateFunction", "void $TLF(int)::@L@::#R#()"},
    {"LocalClassInLambda", "void @Plain@::#Local#()::(anonymous class)::operator()()::M::R()"},
    {"ReturnsAFunctionPointer", "void (*#FreeFn#(int))(double)"},
    {"MemberReturnsAFunctionPointer", "void (*@Plain@::#GetFn#(int))(double)"},
    {"ReturnsAFunctionPointerOfOne", "void (*(*@B2@::#ff#(int) const)(char))(double)"},
    {"ReturnsAnArrayReference", "int (&#ArrRef#())[3]"},
    {"ReturnsAMemberPointer", "int (Plain::*#MemPtr#())(int) const"},
    {"ReturnsADataMemberPointer", "int A::*@A@::#dm#()"},
    {"ReturnsATemplateOfFunction", "std::function<void (B2 &)> @B2@::#sf#()"},
    {"ReturnsADependentType", "<dependent type> #Trail#(T, U) [T = int, U = double]"},
    {"GreaterThanInATemplateArgument",
     "std::enable_if_t<(sizeof(T) > 3), T> @A@::#h#(T) [T = int]"},
    {"TakesFunctions", "void #TakesFn#(void (*)(int, char), int (&)[3])"},
    {"FunctionAsTemplateArgument", "void @FnArg@<&pred>::#Run#() [F = &pred]"},
    {"FunctionTypeAsTemplateArgument",
     "void @Std@<void (*)(std::vector<int>)>::#Run#() [F = void (*)(std::vector<int>)]"},
    {"LiteralOperator", "int #operator\"\"_km#(unsigned long long)"},
    {"OpeningParenthesisAsTemplateArgument", "void @Chr@<'('>::#Run#() [C = '(']"},
    {"GreaterThanAsTemplateArgument", "void @Chr@<'>'>::#Run#() [C = '>']"},
    {"LessThanAsTemplateArgument", "void @AutoArg@<'<'>::#Run#() [V = '<']"},
    {"QuoteAsTemplateArgument", "void @Chr@<'\\''>::#Run#() [C = '\\'']"},
    {"EscapedNumberAsTemplateArgument", "void @Chr@<'\\x80'>::#Run#() [C = '\\x80']"},
    {"MemberPointerAsTemplateArgument",
     "void @AutoArg@<&Plain::Member>::#Run#() [V = &Plain::Member]"},
    {"NegativeTemplateArgument", "void @Neg@<-1>::#R#() [N = -1]"},
};

INSTANTIATE_TEST_SUITE_P(Clang, FunctionIndicesTest, ::testing::ValuesIn(CLANG_SIGNATURES), NameOf);

// The examples of the interface are found while the program is compiled.
static_assert(FindFunctionIndices(
                  "static void KeyCombinationLoggerRegistration::m_LaunchMenu(KeyComb, void*)") ==
              FunctionIndices{-1, 12, 43, 46, 57});
static_assert(FindFunctionIndices("static void KeyCombinationLoggerRegistration::m_LaunchMenu("
                                  "KeyCombinationLoggerRegistration::KeyComb, void *)") ==
              FunctionIndices{-1, 12, 43, 46, 57});
static_assert(FindFunctionIndices("void ZORLogs::SetLoggingSystem(IZORLogger*)") ==
              FunctionIndices{-1, 5, 11, 14, 29});
static_assert(FindFunctionIndices("static void ns::Cls::Run(int)") ==
              FunctionIndices{12, 16, 18, 21, 23});
static_assert(FindFunctionIndices("int Main()") == FunctionIndices{-1, 4, 7, 4, 7});
static_assert(std::string_view(BaseName("src/ZorServiceDebugOverlay.cpp")) ==
              "ZorServiceDebugOverlay.cpp");
static_assert(std::string_view(BaseName("Main.cpp")) == "Main.cpp");
static_assert(std::string_view(BaseName("/a.b/c/")).empty());
static_assert(std::string_view(BaseName("")).empty());

/// Every range lies inside the text or is empty, and the class stands before its function.
void ExpectInside(const std::string& text)
{
    SCOPED_TRACE("in \"" + text.substr(0, 100) + "\"");
    const FunctionIndices found = FindFunctionIndices(text);
    const int size = static_cast<int>(text.size());
    EXPECT_GE(found.functionBegin, 0) << found;
    EXPECT_LT(found.functionEnd, size) << found;
    EXPECT_GE(found.functionEnd, found.functionBegin - 1) << found;
    EXPECT_GE(found.classBegin, 0) << found;
    EXPECT_LT(found.classEnd, size) << found;
    EXPECT_GE(found.classEnd, found.classBegin - 1) << found;
    EXPECT_LE(found.classBegin, found.functionBegin) << found;
    EXPECT_GE(found.scope, -1) << found;
    EXPECT_TRUE(found.scope < 0 || found.scope < found.classBegin) << found;
}

TEST(FunctionIndicesDegenerateTest, TextOutsideOfFunctionsIsAllName)
{
    EXPECT_EQ(FindFunctionIndices("top level"), (FunctionIndices{-1, 0, 8, 0, 8}));
    EXPECT_EQ(FindFunctionIndices("x"), (FunctionIndices{-1, 0, 0, 0, 0}));
}

TEST(FunctionIndicesDegenerateTest, EmptyTextGivesEmptyRanges)
{
    EXPECT_EQ(FindFunctionIndices(""), (FunctionIndices{-1, 0, -1, 0, -1}));
}

TEST(FunctionIndicesDegenerateTest, UnbalancedTextGivesRangesInsideTheText)
{
    for (const char* text : {"f(<",
                             "f<(",
                             "<",
                             ">",
                             "(",
                             ")",
                             "f(((",
                             "a::b<c::d(",
                             "::",
                             "a::",
                             "::a(",
                             "operator",
                             "operator(",
                             "operator()",
                             "operator<",
                             "operator\"\"",
                             "operator \"",
                             "operator ",
                             "operator a(b)(",
                             "~",
                             "decltype",
                             "decltype(",
                             "f('",
                             "f('(",
                             "f<'\\",
                             "f<'\\'",
                             "'",
                             "<lambda",
                             "(anonymous ",
                             "{",
                             "a::{",
                             "f()::<lambda(",
                             "f()::(anonymous class",
                             " [",
                             "void f [",
                             "f() const volatile &&::",
                             "->",
                             "a->b()",
                             "\x80\xff("}) {
        ExpectInside(text);
    }
}

TEST(FunctionIndicesDegenerateTest, EveryShortTextGivesRangesInsideTheText)
{
    const std::vector<std::string> parts = {"a",       " ", "::", "(", ")",        "<",
                                            ">",       "'", "\\", "[", "operator", "decltype",
                                            "<lambda", "{", "}",  "&"};
    std::vector<std::string> texts = {""};
    for (int length = 0; length < 4; ++length) {
        std::vector<std::string> longer;
        for (const std::string& text : texts) {
            for (const std::string& part : parts) {
                longer.push_back(text + part);
                ASSERT_NO_THROW(ExpectInside(longer.back())) << longer.back();
            }
        }
        texts.swap(longer);
    }
}

TEST(FunctionIndicesDegenerateTest, BrokenSignaturesGiveRangesInsideTheText)
{
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (int round = 0; round < 200; ++round) {
        for (const TSMarkedSignature& signature : GCC_SIGNATURES) {
            FunctionIndices ignored;
            std::string text = Unmark(signature.marked, &ignored);
            text.erase(random() % text.size(), 1 + random() % 3);
            if (!text.empty()) {
                text.insert(random() % text.size(), 1, "<>()[]':{} ~"[random() % 12]);
            }
            ASSERT_NO_THROW(ExpectInside(text)) << text;
            ASSERT_NO_THROW(ExpectInside(text.substr(0, random() % (text.size() + 1)))) << text;
        }
    }
}

TEST(FunctionIndicesDegenerateTest, VeryLongTextsGiveRangesInsideTheText)
{
    constexpr size_t LENGTH = 100000;
    ExpectInside(std::string(LENGTH, 'a'));
    ExpectInside(std::string(LENGTH, '<'));
    ExpectInside(std::string(LENGTH, '('));
    ExpectInside("f(" + std::string(LENGTH, '\''));
    const std::string deep = std::string(LENGTH, '<') + std::string(LENGTH, '>');
    EXPECT_EQ(FindFunctionIndices("void A" + deep + "::Run()"),
              (FunctionIndices{-1, 5, 5, static_cast<int>(2 * LENGTH) + 8,
                               static_cast<int>(2 * LENGTH) + 10}));
}

} // namespace
