// What .NET's RSACng, ECDsaCng and X509Certificate2 ask of a key, played to the module: in modern every
// answer is the recorded one; in classic the constructors do not get the size of the key.

#include <string>
#include <vector>

#include "call_list.h"

namespace NV::test {

namespace {

class DotNetCalls : public RouterTest {
protected:
    DotNetCalls() : RouterTest(1) {}

    // A call of a list that got another answer than the recorded one.
    struct Difference {
        RecordedCall recorded;
        std::string answer;
    };

    // All differences, or only the first: what .NET does after it is not recorded.
    static std::vector<Difference> play(const std::string& list, const Bytes& certificate,
                                        bool onlyFirst)
    {
        CallPlayer player(certificate);
        std::vector<Difference> differences;
        for (const RecordedCall& recorded : readCalls(CALL_LISTS "/" + list)) {
            std::string answer = player.play(recorded.call);
            if (answer == recorded.answer)
                continue;
            differences.push_back({recorded, std::move(answer)});
            if (onlyFirst)
                break;
        }
        return differences;
    }

    void expectAnswers(const std::string& list, const Bytes& certificate) const
    {
        const std::vector<Difference> differences = play(list, certificate, !modern());
        if (modern()) {
            for (const Difference& one : differences)
                ADD_FAILURE() << list << ":" << one.recorded.line << ": " << one.recorded.call
                              << "\n  answer:   " << one.answer
                              << "\n  recorded: " << one.recorded.answer;
            return;
        }
        // Classic does not tell the size, and .NET's constructor throws.
        ASSERT_FALSE(differences.empty());
        EXPECT_EQ(differences.front().recorded.call, "GetProperty \"PublicKeyLength\" 4 flags=0");
        EXPECT_EQ(differences.front().answer, "0x80090029");
    }
};

}  // namespace

TEST_P(DotNetCalls, OfRsaCngGetTheRecordedAnswersInModern)
{
    expectAnswers("rsa.calls", rsaCertificate);
}

TEST_P(DotNetCalls, OfECDsaCngGetTheRecordedAnswersInModern)
{
    expectAnswers("ecdsa.calls", ecCertificate);
}

INSTANTIATE_TEST_SUITE_P(Behaviours, DotNetCalls,
                         testing::Values(Behaviour::classic, Behaviour::modern),
                         testing::PrintToStringParamName());

}  // namespace NV::test
