// The /DEPENDENCIES value in the form the service manager takes: each name followed by a zero
// unit, and one more zero unit at the end of the list.
//
// The command line lets a value hold only letters, digits and white space, so names are separated
// by white space ("d1 d2"; a comma ends the value before it gets here). A value with no name in it
// gives the empty text, which install passes on as no list at all.
#pragma once

#include <string>

namespace Vigil {

std::u16string DependencyList(const std::u16string& value);

}  // namespace Vigil
