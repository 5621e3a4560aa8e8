#include "PrefixTrieHooks.h"

#include "Vel/Module.h"

VEL_MODULE(TrieTest, 637926b7314de79f, TrieTest::State, TrieTest::Trie, TrieTest::Plain);
