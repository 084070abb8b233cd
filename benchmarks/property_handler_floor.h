#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace benchmarks {

// The least that the property handler's work can cost: its system calls, one after the other, on a hive in
// which nobody else has written, and its lines on standard output. Everything that the calls are given is
// made beforehand, and what they return decides nothing.
class property_handler_floor {
public:
    property_handler_floor();

    void register_on_clean_hive() const; // needs: nothing registered
    void register_again() const;         // needs: all registered
    void remove() const;                 // needs: all registered

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

    std::vector<file_type> types_;           // in the order of registration
    std::vector<file_type> types_by_name_;   // in the registry's
    std::string infotip_;                    // with the extra property
    std::vector<std::string> longer_lists_;  // "FullDetails" after each extra property that went in
    std::vector<std::string> shorter_lists_; // and after each that went out
};

} // namespace benchmarks
