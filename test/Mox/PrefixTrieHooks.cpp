#include "PrefixTrieHooks.h"

#include "Vel/describe/Module.h"

VEL_MODULE(TrieTest, 637926b7314de79f, TrieTest::State, TrieTest::Trie, TrieTest::Plain);
