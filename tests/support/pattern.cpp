#include "pattern.hpp"

#include <regex>

struct pattern::compiled {
    std::regex expression;
};

pattern::pattern(const std::string& text) : _compiled(new compiled{std::regex(text)}) {}

pattern::~pattern() = default;

bool pattern::matches(const std::string& text) const {
    return std::regex_match(text, _compiled->expression);
}

bool pattern::is_in(const std::string& text) const {
    return std::regex_search(text, _compiled->expression);
}

std::string pattern::group_in(const std::string& text, size_t group) const {
    std::smatch found;
    return std::regex_search(text, found, _compiled->expression) ? found[group].str() : "";
}

std::vector<std::string> pattern::all_in(const std::string& text) const {
    std::vector<std::string> found;
    for (std::sregex_iterator each(text.begin(), text.end(), _compiled->expression), end;
         each != end; ++each) {
        found.push_back(each->str());
    }
    return found;
}

std::string pattern::replaced_in(std::string_view text, const std::string& replacement) const {
    return std::regex_replace(std::string(text), _compiled->expression, replacement);
}
