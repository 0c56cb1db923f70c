#include "evctl/wire/inquiry.h"

#include "common/cli.h"
#include "common/text.h"

#include <iostream>

namespace evctl {
namespace {

std::string whyNot(U32_t returnCode) {
    switch (returnCode) {
    case EMP_E_RESPONSE_FAILURE:
        return "no such event, or nobody to ask for it";
    case EMP_E_RESPONSE_RESOURCE_NOT_AVAILABLE:
        return "the archiver did not answer in time";
    default:
        return "unknown answer";
    }
}

void addTextOption(CLI::App& command, const std::string& flag, std::optional<std::string>& text,
                   const std::string& description) {
    command.add_option(flag, text, description)
        ->type_name("TEXT")
        ->check([](const std::string& value) {
            return value.empty() || value.size() > EMP_ID_TEXT_SIZE ? "must have 1 to 64 bytes"
                                                                    : "";
        })
        ->group("Log asked about [this blade's]");
}

void addNumberOption(CLI::App& command, const std::string& flag, std::optional<U32_t>& number,
                     const std::string& description) {
    command.add_option(flag, number, description)
        ->type_name("NUMBER")
        ->group("Log asked about [this blade's]");
}

/** The newest event and not the oldest one: a log may begin with events of an earlier instance. */
LogIdentity askForIdentity(Requester& requester) {
    InquiryAnswer answer = inquire(requester, EMP_E_INQUIRY_TYPE_LAST, {}, 0);
    if (!answer.found()) {
        throw SessionError("the event manager does not say which blade this is");
    }
    return identityOf(*answer.event().header);
}

} // namespace

LogIdentity identityOf(const EmpEvLogHeader_t& header) {
    return {.enclosure = tools::fieldText(header.evEnclosureId, sizeof(header.evEnclosureId)),
            .blade = tools::fieldText(header.evBladeId, sizeof(header.evBladeId)),
            .slot = header.evSlotId,
            .instance = header.evInstanceNumber};
}

Bytes makeInquiry(U32_t requestor, EMP_INQUIRY_TYPE_e type, const LogIdentity& identity,
                  U32_t sequenceId) {
    Bytes message = makeMessage(EMP_E_MSGS_INQUIRY, requestor, sizeof(EmpEvInquiryMsg_t));
    auto& body = *reinterpret_cast<EmpEvInquiryMsg_t*>(message.data() + MMCH_SIZE);
    body.evInquiryType = type;
    setFieldText(body.evEnclosureId, sizeof(body.evEnclosureId), identity.enclosure);
    setFieldText(body.evBladeId, sizeof(body.evBladeId), identity.blade);
    body.evSlotId = identity.slot;
    body.evInstanceNumber = identity.instance;
    body.evSeqIdInquiry = sequenceId;
    return message;
}

EventView InquiryAnswer::event() const {
    const auto* header = reinterpret_cast<const EmpEvLogHeader_t*>(message.data() + MMCH_SIZE);
    return {header, {message.data() + EMP_EVENT_MMSG_SIZE, header->evStructLength}};
}

InquiryAnswer inquire(Requester& requester, EMP_INQUIRY_TYPE_e type, const LogIdentity& identity,
                      U32_t sequenceId) {
    InquiryAnswer answer;
    answer.message = requester.ask(makeInquiry(requester.endpoint(), type, identity, sequenceId),
                                   EMP_EVENT_HEADER_SIZE);
    answer.returnCode = mmchOf(answer.message).return_code;
    if (answer.found() &&
        answer.event().data.size() > answer.message.size() - EMP_EVENT_MMSG_SIZE) {
        throw SessionError("an answer of " + std::to_string(answer.message.size()) +
                           " bytes came, too short for its event");
    }
    return answer;
}

int sayNotFound(const InquiryAnswer& answer, const std::string& more) {
    std::cerr << "evctl: " << whyNot(answer.returnCode) << " (return code " << answer.returnCode
              << ")" << more << "\n";
    return tools::EXIT_FINDING;
}

void addIdentityOptions(CLI::App& command, IdentityOptions& options) {
    addTextOption(command, "--enclosure", options.enclosure, "Enclosure id");
    addTextOption(command, "--blade", options.blade, "Blade id");
    addNumberOption(command, "--slot", options.slot, "Slot");
    addNumberOption(command, "--instance", options.instance, "Instance number of the log");
}

LogIdentity resolveIdentity(Requester& requester, const IdentityOptions& options,
                            const SwitchOptions& where) {
    LogIdentity own;
    bool named = options.enclosure && options.blade && options.slot;
    if (!options.instance || (!named && !where.block.given())) {
        own = askForIdentity(requester);
    }
    if (where.block.given()) {
        const MPU_PARAMS_t& params = attachParams(where.block);
        own.enclosure = tools::fieldText(params.chassisSN, sizeof(params.chassisSN));
        own.blade = tools::fieldText(params.serialStr, sizeof(params.serialStr));
        own.slot = params.slotId;
    }
    return {.enclosure = options.enclosure.value_or(own.enclosure),
            .blade = options.blade.value_or(own.blade),
            .slot = options.slot.value_or(own.slot),
            .instance = options.instance.value_or(own.instance)};
}

} // namespace evctl
