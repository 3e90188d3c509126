#include "DebugMenuUtility.h"

#include <dlfcn.h>

#include <algorithm>
#include <iostream>
#include <locale>

const char* const TCDebugMenuUtility::thickLine = "====================================\n";
const char* const TCDebugMenuUtility::thinLine = "------------------------------------\n";

void TCDebugMenuUtility::OpenLibrary(const char* fileName, const char* symbol)
{
    void* const library = dlopen(fileName, RTLD_NOW);
    if (library == nullptr) {
        std::cout << "Opening dll failed." << std::endl;
        return;
    }
    void* const function = dlsym(library, symbol);
    if (function == nullptr) {
        std::cout << "PTR not found." << std::endl;
    } else {
        reinterpret_cast<void (*)()>(function)();
    }
    dlclose(library);
}

bool TCDebugMenuUtility::IsNumber(const std::string& text)
{
    const std::locale locale;
    return !text.empty() && std::all_of(text.begin(), text.end(), [&locale](char character) {
        return std::isdigit(character, locale);
    });
}
