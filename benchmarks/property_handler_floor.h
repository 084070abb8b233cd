#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace benchmarks {

// The minimum cost of the property handler's work: its system calls in order, on a hive without other
// software's values, and its lines on standard output. All arguments are prepared beforehand; results are
// ignored.
class property_handler_floor {
public:
    property_handler_floor();

    void register_on_clean_hive() const; // requires: nothing registered
    void register_again() const;         // requires: all registered
    void remove() const;                 // requires: all registered

private:
    struct file_type {
        std::string extension;
        std::string handler_path;
        std::string lists_path;
        bool overridden;
        bool extended;
    };

    static std::vector<file_type> file_types();
    void extend_lists(const file_type& type, REGSAM view) const;
    void shorten_lists(const file_type& type) const;

    std::vector<file_type> types_;           // in registration order
    std::vector<file_type> types_by_name_;   // in the registry's order
    std::string infotip_;                    // with the extra property
    std::vector<std::string> longer_lists_;  // FullDetails after each added property
    std::vector<std::string> shorter_lists_; // and after each removed one
};

} // namespace benchmarks
