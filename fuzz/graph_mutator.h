#ifndef KOVRA_FUZZ_GRAPH_MUTATOR_H_
#define KOVRA_FUZZ_GRAPH_MUTATOR_H_

#include <string>

// Replaces a model's bytes (binary, text or protected GraphDef) with a mutant
// that depends only on them and `seed`; false, leaving them alone, when they
// do not parse as a model with nodes.
bool mutate_model(std::string& bytes, unsigned seed);

#endif  // KOVRA_FUZZ_GRAPH_MUTATOR_H_
