// The scripted gateway against a real CKelIPConnection client: the
// automatic answers, exact bytes both ways, disconnecting and reconnecting,
// and a gateway whose answers the test gives itself.
#include "support/OrvaneTelegram.h"
#include "support/RawPeer.h"
#include "support/RecordingConnection.h"
#include "support/ScriptedGateway.h"

#include <gtest/gtest.h>

#include <future>

using namespace OrvaneTest;

namespace
{

unsigned int Connect(CRecordingConnection& oClient, const CScriptedGateway& oGateway, unsigned char nId,
                     const std::string& sConnectData = "")
{
    return oClient.ConnectReq(LOOPBACK, oGateway.Port(), WAIT_MS, nId, CKelIPBase::eTCP, sConnectData, true);
}

TEST(ScriptedGateway, AnswersTheConnectionAndPassesTelegramsBothWays)
{
    CScriptedGateway oGateway(DEVICE_CAN);
    ASSERT_NE(0, oGateway.Port());
    CRecordingConnection oClient;
    ASSERT_EQ(eKelIPSuccess, Connect(oClient, oGateway, DEVICE_CAN));
    EXPECT_TRUE(oGateway.WaitConnected());

    // INFO request 0x0209, ID 7: CRC 09^02^07^00 = 0C.
    const std::string sRequest = FromHex("05 00 09 02 07 00 0C");
    ASSERT_EQ(eKelIPSuccess, oClient.DataReq(sRequest.data(), static_cast<unsigned short>(sRequest.size()), WAIT_MS));
    const std::string sReceived = oGateway.NextTelegram();
    EXPECT_EQ(ToHex(sRequest), ToHex(sReceived));
    const COrvaneMsg oRequest = ToOrvaneMsg(sReceived);
    EXPECT_TRUE(oRequest.IsValid() && oRequest.IsCRCValid());
    // Its confirmation with result 0 and "ab": CRC 09^82^07^00^00^61^62 = 8F;
    // then the same with the CRC inverted, passed on as it is.
    const std::string sConfirmation = ConfirmationOf(oRequest, Byte(0) + "ab");
    EXPECT_EQ("08 00 09 82 07 00 00 61 62 8F", ToHex(sConfirmation));
    ASSERT_TRUE(oGateway.Send(sConfirmation + WithWrongCrc(sConfirmation)));
    ASSERT_TRUE(oClient.WaitForMessages(2));
    EXPECT_EQ("08 00 09 82 07 00 00 61 62 70", ToHex(oClient.Messages()[1]));

    // Alive requests are answered, so the client's alive protocol keeps the
    // connection; none of them reaches the test.
    ASSERT_EQ(eKelIPSuccess, oClient.SetAlive(100));
    EXPECT_TRUE(WaitUntil([&] { return oGateway.AliveRequests() >= 4; }));
    EXPECT_EQ(CKelIPBase::eConnected, oClient.GetState());
    ASSERT_EQ(eKelIPSuccess, oClient.SetAlive(0));

    // A disconnect request is confirmed with 0 and ends the connection; the
    // next client is served, and CloseClient ends its connection.
    EXPECT_EQ(eKelIPSuccess, oClient.DisconnectReq(WAIT_MS));
    EXPECT_TRUE(oGateway.WaitClosed());
    // The gateway's close may reach the client's read thread first, which
    // then ends the connection while DisconnectReq returns.
    ASSERT_TRUE(WaitUntil([&] { return oClient.GetState() == CKelIPBase::eDisconnected; }));
    ASSERT_EQ(eKelIPSuccess, Connect(oClient, oGateway, DEVICE_CAN));
    EXPECT_TRUE(oGateway.WaitConnected());
    EXPECT_EQ(2, oGateway.Connections());
    oGateway.CloseClient();
    EXPECT_TRUE(oClient.WaitForConnectInd(false, 2));
    EXPECT_TRUE(oGateway.WaitClosed());
    EXPECT_EQ("", oGateway.NextTelegram(0));
}

TEST(ScriptedGateway, AnswersConnectionMessagesOfItsIdByteForByte)
{
    CScriptedGateway oGateway(DEVICE_CAN);
    CRawPeer oPeer;
    ASSERT_TRUE(oPeer.Connect(oGateway.Port()));
    // The answer expected, "" for a message handed to the test instead.
    const struct
    {
        const char* sRequest;
        const char* sAnswer;
    } aoCases[] = {
        {"05 00 01 02 01 00 02", "06 00 01 82 01 00 00 82"},             // connect: 0
        {"09 00 0D 02 05 00 64 00 00 00 6E", "06 00 0D 82 05 00 00 8A"}, // alive, 100 ms: 0
        {"05 00 0D 02 06 00 09", "06 00 0D 82 06 00 FF 76"},             // alive without period: FF
        {"09 00 0D 02 05 00 64 00 00 00 6F", ""},                        // wrong CRC
        {"05 00 0D 01 07 00 0B", ""},                                    // another id's alive
        {"05 00 02 02 09 00 09", "06 00 02 82 09 00 00 89"},             // disconnect: 0, closed
    };
    for (const auto& oCase : aoCases)
    {
        SCOPED_TRACE(oCase.sRequest);
        ASSERT_TRUE(oPeer.SendHex(oCase.sRequest));
        if (*oCase.sAnswer != '\0')
            EXPECT_EQ(oCase.sAnswer, oPeer.ReceiveHex());
        else
            EXPECT_EQ(oCase.sRequest, ToHex(oGateway.NextTelegram()));
    }
    EXPECT_TRUE(oPeer.WaitClosed());
    EXPECT_TRUE(oGateway.WaitClosed());
    EXPECT_EQ(2, oGateway.AliveRequests());
}

TEST(ScriptedGateway, WithoutAnswersTheTestAnswersTheConnectRequest)
{
    CScriptedGateway oGateway(DEVICE_I2C);
    oGateway.SetAnswering(false);
    CRecordingConnection oClient;
    auto oResult = std::async(std::launch::async, [&] { return Connect(oClient, oGateway, DEVICE_I2C, "hi"); });
    // Connect request of the I2C connection: 0x0101, number 1, "hi"; CRC
    // 01^01^01^00^68^69 = 00.
    EXPECT_EQ("07 00 01 01 01 00 68 69 00", ToHex(oGateway.NextTelegram()));
    EXPECT_TRUE(oGateway.WaitAccepted());
    EXPECT_FALSE(oGateway.WaitConnected(0));
    ASSERT_TRUE(oGateway.Send(ConnectConfirmation(DEVICE_I2C, 1))); // the connection limit
    EXPECT_EQ(eKelIPRefused, oResult.get());
    EXPECT_TRUE(oGateway.WaitClosed());
}

} // namespace
