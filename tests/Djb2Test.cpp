// The hash by blocks, compiled into the test, against its definition. Each width of block is tried,
// those too that the library does not use on this processor.
#include "Framework/GCL/private/Djb2.h"

#include <gtest/gtest.h>

#include <random>
#include <string>

namespace {

uint32_t byBytes(uint32_t hash, const std::string& key)
{
    for (const char character : key) {
        hash = (hash << 5) + hash + static_cast<unsigned char>(character);
    }
    return hash;
}

// Keys of every length up to 300, of random bytes and of the largest ones.
template <typename Check>
void forKeys(const Check& check)
{
    std::mt19937 random(33);
    for (size_t length = 0; length <= 300; ++length) {
        std::string key(length, '\xff');
        check(key);
        for (int round = 0; round < 10; ++round) {
            for (char& character : key) {
                character = static_cast<char>(1 + random() % 255);
            }
            check(key);
        }
    }
}

template <typename Word>
uint32_t byWords(uint32_t hash, const std::string& key)
{
    const char* const begin = key.c_str();
    return gcl::djb2ByWords<Word>(hash, begin, begin + key.size());
}

} // namespace

TEST(Djb2, IsTheHashOfTheDefinition)
{
    EXPECT_EQ(gcl::djb2("", 0), 5381u);
    EXPECT_EQ(gcl::djb2("a", 1), 5381u * 33 + 'a');
    forKeys([](const std::string& key) {
        ASSERT_EQ(gcl::djb2(key.c_str(), key.size()), byBytes(5381, key)) << key.size();
    });
}

TEST(Djb2, IsTheSameByWordsOfEitherWidth)
{
    forKeys([](const std::string& key) {
        if (key.size() >= 4) {
            ASSERT_EQ(byWords<uint32_t>(7, key), byBytes(7, key)) << key.size();
        }
        if (key.size() >= 8) {
            ASSERT_EQ(byWords<uint64_t>(7, key), byBytes(7, key)) << key.size();
        }
    });
}

TEST(Djb2, OfShortKeysIsTheSame)
{
    forKeys([](const std::string& key) {
        if (key.size() < 8) {
            ASSERT_EQ(gcl::djb2OfShort(key.c_str(), key.size()), byBytes(5381, key)) << key.size();
        }
    });
}

TEST(Djb2, GoesOnFromTheMiddleOfAKey)
{
    const std::string key = "what was taken before the middle is not taken again";
    for (size_t middle = 0; middle <= key.size(); ++middle) {
        const char* const begin = key.c_str();
        const uint32_t hash = byBytes(5381, key.substr(0, middle));
        EXPECT_EQ(gcl::djb2ByWords<uint32_t>(hash, begin + middle, begin + key.size()),
                  byBytes(5381, key));
        EXPECT_EQ(gcl::djb2ByWords<uint64_t>(hash, begin + middle, begin + key.size()),
                  byBytes(5381, key));
    }
}

#ifdef __SSE2__
TEST(Djb2, IsTheSameByVectors)
{
    forKeys([](const std::string& key) {
        if (key.size() % 32 == 0) {
            ASSERT_EQ(gcl::djb2ByVectors(7, key.c_str(), key.size()), byBytes(7, key))
                << key.size();
        }
    });
}
#endif
