// Double factorial table n!!, shared by the Boys function tables and the
// overlap integrals. 0!! = 1!! = 1, n!! = n (n-2)!!. Process-wide, grows only.
#pragma once

namespace kvx::gauss {

// Grows the table to index n (at least); ends the run with the Fmch message
// when memory runs out.
void dfact_grow(int n);
// n!! for 0 <= n <= the grown top; (-1)!! = 1 by convention.
double dfact(int n);
int dfact_top();
void dfact_release();

}  // namespace kvx::gauss
