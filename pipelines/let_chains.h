// Chains of lets around a statement, as the lowered loop bodies have them.
#pragma once

#include <Halide.h>

#include <vector>

namespace flatmorph {

// The lets that open `s`, outermost first, and the statement they hold.
struct LetChain {
    std::vector<const Halide::Internal::LetStmt *> lets;
    Halide::Internal::Stmt body;

    explicit LetChain(Halide::Internal::Stmt s) {
        while (const Halide::Internal::LetStmt *let = s.as<Halide::Internal::LetStmt>()) {
            lets.push_back(let);
            s = let->body;
        }
        body = s;
    }

    // `e`, read inside the chain, with the lets' values substituted.
    Halide::Expr substituted(Halide::Expr e) const {
        for (auto let = lets.rbegin(); let != lets.rend(); ++let)
            e = Halide::Internal::Let::make((*let)->name, (*let)->value, e);
        return Halide::Internal::substitute_in_all_lets(e);
    }

    // `s` inside the same lets.
    Halide::Internal::Stmt around(Halide::Internal::Stmt s) const {
        for (auto let = lets.rbegin(); let != lets.rend(); ++let)
            s = Halide::Internal::LetStmt::make((*let)->name, (*let)->value, s);
        return s;
    }
};

}  // namespace flatmorph
