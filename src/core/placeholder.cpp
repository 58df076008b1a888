// Placeholder definitions until the real ones land; deleted by the core work.
#include "client/event_base.h"
#include "core/io.h"
#include "core/packet.h"
#include "core/server.h"

namespace korvel {
uint32_t crc32_calc(uint32_t, const void*, uint32_t, uint32_t*) { return 0; }
CPacket::CPacket() : buf{}, startTime(0), localId(1) {}
void CPacket::packData(uint8_t, uint8_t, uint32_t, uint32_t, const void*, uint32_t) {}
void CPacket::packAck(uint8_t, uint8_t, uint32_t, uint32_t, uint8_t, uint16_t, uint16_t) {}
void CPacket::packDataHeader(uint8_t, uint8_t, uint32_t, uint32_t, const void*, uint32_t, uint8_t*) {}
void CPacket::unpackHeader() {}
int32_t CPacket::readFrom(int) { return -1; }
uint32_t CPacket::getReqType() const { return 0; }
uint32_t CPacket::getMarker() const { return 0; }
uint32_t CPacket::getMsgType() const { return 0; }
uint32_t CPacket::getSeqNO() const { return 0; }
uint32_t CPacket::getPeerID() const { return 0; }
uint32_t CPacket::getOffset() const { return 0; }
uint32_t CPacket::getPayloadLen() const { return 0; }
uint32_t CPacket::getTimestamp() const { return 0; }
uint32_t CPacket::getAckWord() const { return 0; }
uint32_t CPacket::getAckFlag() const { return 0; }
uint32_t CPacket::getAckValue() const { return 0; }
uint32_t CPacket::getAckCode() const { return 0; }
uint32_t CPacket::getCrcData() const { return 0; }
uint32_t CPacket::getCrcLen() const { return 0; }
void CPacket::set_identity_for_tests(uint64_t, uint32_t, uint64_t) {}
int readn(int, void*, int) { return -1; }
int writen(int, const void*, int) { return -1; }
int writev_all(int, const void*, int, const void*, int, const void*, int) { return -1; }
PacketAssembler::PacketAssembler() {}
PacketAssembler::~PacketAssembler() {}
int32_t PacketAssembler::feed(int, CPacket&) { return -1; }
int32_t CEventBase::send_msg_data_to_app(int, uint8_t, uint8_t, uint32_t, const void*, uint32_t) { return -1; }
int32_t CEventBase::send_msg_ack_to_app(int, uint8_t, uint8_t, uint32_t, uint8_t, uint16_t, uint16_t) { return -1; }
int32_t CEventBase::check_seq_no(CPacket&) { return -1; }
int32_t CEventBase::check_crc(int, CPacket&) { return -1; }
uint8_t CEventBase::quit_received() { return 1; }
}  // namespace korvel
