// A check for clang-tidy that finds nothing: it lets the others look at what is declared outside of
// the system's headers only, which is what they would tell of, and a third of the time.
#include <clang-tidy/ClangTidyCheck.h>
#include <clang-tidy/ClangTidyModule.h>
#include <clang-tidy/ClangTidyModuleRegistry.h>
#include <clang/AST/ASTContext.h>

#include <vector>

namespace {

class OwnCode : public clang::tidy::ClangTidyCheck {
  public:
    using ClangTidyCheck::ClangTidyCheck;

    // The unit itself is met before all that is in it, and asks then what it is to show.
    void registerMatchers(clang::ast_matchers::MatchFinder* finder) override {
        finder->addMatcher(clang::ast_matchers::translationUnitDecl().bind("unit"), this);
    }

    void check(const clang::ast_matchers::MatchFinder::MatchResult& result) override {
        std::vector<clang::Decl*> own;
        for (clang::Decl* each :
             result.Nodes.getNodeAs<clang::TranslationUnitDecl>("unit")->decls()) {
            if (!result.SourceManager->isInSystemHeader(each->getLocation())) {
                own.push_back(each);
            }
        }
        result.Context->setTraversalScope(own);
    }
};

class Module : public clang::tidy::ClangTidyModule {
  public:
    void addCheckFactories(clang::tidy::ClangTidyCheckFactories& factories) override {
        factories.registerCheck<OwnCode>("nuvio-own-code");
    }
};

clang::tidy::ClangTidyModuleRegistry::Add<Module> registration{"nuvio", "how far the checks look"};

}  // namespace
