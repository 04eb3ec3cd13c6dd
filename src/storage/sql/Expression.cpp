#include "storage/sql/Expression.h"

namespace almanor::sql {

Expression operator!(const Expression& operand) {
    return Expression("NOT (" + operand.text + ")", operand.bindings);
}

Expression operator&&(const Expression& left, const Expression& right) {
    std::vector<Binding> bindings = left.bindings;
    bindings.insert(bindings.end(), right.bindings.begin(), right.bindings.end());
    return Expression("(" + left.text + " AND " + right.text + ")", std::move(bindings));
}

} // namespace almanor::sql
