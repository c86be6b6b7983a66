// What this system tells of its WMI classes: which there are, and what their properties mean. Names are found without
// regard to case. On Linux the agent has the classes itself; on Windows WMI describes them.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kv::control {

/// A class in the list of all.
struct ListedClass {
    std::string name;
    std::string meaning;  // one line
};

struct DescribedProperty {
    std::string name;
    std::string type;     // such as "uint32"
    bool isKey = false;   // one of those that tell objects apart
    std::string meaning;  // unit and source; empty where the system does not tell
};

struct DescribedClass {
    std::string name;
    std::string meaning;
    std::string superclass;  // empty for a class without one
    std::vector<DescribedProperty> properties;
};

/// All classes, in the order of names. Empty where the system tells them in another way: ClassGuideHint.
std::vector<ListedClass> ListClasses();

/// Absent if the namespace has no such class.
std::optional<DescribedClass> DescribeClass(const std::string& nameSpace, const std::string& name);

/// The class that was probably meant by a name; empty if none resembles it.
std::string NearestClass(const std::string& name);

/// Where else the system's classes are described; empty where all is told here.
std::string ClassGuideHint();

/// What to do about a namespace of another computer; empty for another one, and where other computers are asked, too.
std::string OtherComputerHint(const std::string& nameSpace);

}  // namespace kv::control
