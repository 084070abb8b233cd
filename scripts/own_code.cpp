// A clang-tidy plugin. Its check "own-code" reports nothing; it keeps the other checks out of system headers.
// Without it they spend most of their time in windows.h and the C++ library, on findings that are not shown.

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

    // Runs on the translation unit itself, before the traversal descends into the scope that is set here.
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
