// For clang-tidy: the check "own-code" reports nothing, but leads the others past the system's headers. They
// would walk through all of windows.h and the C++ library for every source, most of the time, and what
// they found there is not shown.

#include <clang/AST/ASTContext.h>
#include <clang/ASTMatchers/ASTMatchFinder.h>
#include <clang/Basic/SourceManager.h>

#include <clang-tidy/ClangTidyCheck.h>
#include <clang-tidy/ClangTidyModule.h>
#include <clang-tidy/ClangTidyModuleRegistry.h>
#include <vector>

namespace {

using clang::ast_matchers::MatchFinder;

class own_code_check : public clang::tidy::ClangTidyCheck {
public:
    using ClangTidyCheck::ClangTidyCheck;

    void registerMatchers(MatchFinder* finder) override
    {
        finder->addMatcher(clang::ast_matchers::translationUnitDecl().bind("unit"), this);
    }

    // The unit itself comes before what it contains; what is to be walked through is asked for in between.
    void check(const MatchFinder::MatchResult& unit) override
    {
        std::vector<clang::Decl*> own;
        for (clang::Decl* declaration : unit.Context->getTranslationUnitDecl()->decls()) {
            if (!unit.SourceManager->isInSystemHeader(declaration->getLocation())) {
                own.push_back(declaration);
            }
        }
        unit.Context->setTraversalScope(own);
    }
};

class own_code_module : public clang::tidy::ClangTidyModule {
    void addCheckFactories(clang::tidy::ClangTidyCheckFactories& factories) override
    {
        factories.registerCheck<own_code_check>("own-code");
    }
};

const clang::tidy::ClangTidyModuleRegistry::Add<own_code_module> REGISTRATION{"own-code", ""};

} // namespace
