#include "ServiceFinder.h"

// The library's headers include nothing, refuse to be included twice, and come in this order.
// clang-format off
#include <dvbpsi/dvbpsi.h>
#include <dvbpsi/psi.h>
#include <dvbpsi/descriptor.h>
#include <dvbpsi/demux.h>
#include <dvbpsi/pat.h>
#include <dvbpsi/pmt.h>
#include <dvbpsi/sdt.h>
#include <dvbpsi/dr_48.h>
// clang-format on

#include <map>
#include <new>
#include <string_view>
#include <utility>

#include "DvbText.h"
#include "Packet.h"
#include "StreamTypes.h"

namespace tsmon {

namespace {

constexpr std::uint8_t SDT_ACTUAL_TABLE = 0x42;
constexpr std::uint8_t SERVICE_DESCRIPTOR_TAG = 0x48;
constexpr std::uint16_t NETWORK_PROGRAM = 0; ///< its PID is the network table's, not a map's

/// Tables belong to the callback that they are given to.
template <auto DELETE>
struct Deleter
{
    template <class Table>
    void operator()(Table* table) const
    {
        DELETE(table);
    }
};

using PatPointer = std::unique_ptr<dvbpsi_pat_t, Deleter<dvbpsi_pat_delete>>;
using PmtPointer = std::unique_ptr<dvbpsi_pmt_t, Deleter<dvbpsi_pmt_delete>>;
using SdtPointer = std::unique_ptr<dvbpsi_sdt_t, Deleter<dvbpsi_sdt_delete>>;

std::vector<Descriptor> ListDescriptors(const dvbpsi_descriptor_t* first)
{
    std::vector<Descriptor> result;
    for (const dvbpsi_descriptor_t* each = first; each != nullptr; each = each->p_next) {
        result.push_back(
            {each->i_tag, {reinterpret_cast<const char*>(each->p_data), each->i_length}});
    }
    return result;
}

ProgramAssociation Convert(const dvbpsi_pat_t& pat)
{
    ProgramAssociation result = {pat.i_ts_id, pat.i_version, {}};
    for (const auto* each = pat.p_first_program; each != nullptr; each = each->p_next) {
        if (each->i_number != NETWORK_PROGRAM) {
            result.programs.push_back({each->i_number, each->i_pid});
        }
    }
    return result;
}

ProgramMap Convert(const dvbpsi_pmt_t& pmt)
{
    ProgramMap result = {pmt.i_program_number, pmt.i_version, pmt.i_pcr_pid, {}};
    for (const auto* each = pmt.p_first_es; each != nullptr; each = each->p_next) {
        const std::vector<Descriptor> descriptors = ListDescriptors(each->p_first_descriptor);
        result.streams.push_back({each->i_pid, each->i_type,
                                  DescribeStream(each->i_type, descriptors),
                                  LanguageOf(descriptors)});
    }
    return result;
}

std::string Text(const std::uint8_t* bytes, std::uint8_t size)
{
    return DecodeDvbText({reinterpret_cast<const char*>(bytes), size});
}

ServiceName Convert(const dvbpsi_sdt_service_t& service)
{
    ServiceName result = {service.i_service_id, {}, {}};
    for (auto* each = service.p_first_descriptor; each != nullptr; each = each->p_next) {
        if (each->i_tag != SERVICE_DESCRIPTOR_TAG) {
            continue;
        }
        if (const dvbpsi_service_dr_t* names = dvbpsi_DecodeServiceDr(each)) {
            result.name = Text(names->i_service_name, names->i_service_name_length);
            result.provider =
                Text(names->i_service_provider_name, names->i_service_provider_name_length);
        }
    }
    return result;
}

ServiceDescriptions Convert(const dvbpsi_sdt_t& sdt)
{
    ServiceDescriptions result = {sdt.i_extension, sdt.i_network_id, sdt.i_version, {}};
    for (const auto* each = sdt.p_first_service; each != nullptr; each = each->p_next) {
        result.services.push_back(Convert(*each));
    }
    return result;
}

/// The library ends its messages like lines; ours are not.
std::string_view WithoutLineEnd(std::string_view text)
{
    while (!text.empty() && text.back() == '\n') {
        text.remove_suffix(1);
    }
    return text;
}

void Complain(dvbpsi_t* handle, dvbpsi_msg_level_t level, const char* message) noexcept
{
    static_cast<TableSink*>(handle->p_sys)
        ->OnComplaint(level == DVBPSI_MSG_ERROR ? Severity::ERROR : Severity::WARNING,
                      std::string(WithoutLineEnd(message)));
}

} // namespace

/// The section decoders, one per table that is watched.
///
/// Their callbacks come out of C code that no exception can cross, so they are noexcept: only a
/// lack of memory, or of a character converter, could make one.
class ServiceFinder::Decoders
{
 public:
    explicit Decoders(TableSink& sink) : m_sink(sink)
    {
        m_pat = NewHandle<dvbpsi_pat_detach>();
        m_sdt = NewHandle<dvbpsi_DetachDemux>();
        Check(dvbpsi_pat_attach(m_pat.get(), &Decoders::OnPat, this));
        Check(dvbpsi_AttachDemux(m_sdt.get(), &Decoders::OnSubtable, this));
    }

    void Push(std::uint16_t pid, const std::uint8_t* packet)
    {
        if (pid == PAT_PID) {
            Push(m_pat.get(), packet);
            return;
        }
        if (pid == SDT_PID) {
            Push(m_sdt.get(), packet);
        }
        const auto [begin, end] = m_pmts.equal_range(pid);
        for (auto each = begin; each != end; ++each) {
            Push(each->second.handle.get(), packet);
        }
    }

 private:
    /// Takes the decoder off the handle, if it was attached, and deletes both.
    template <auto DETACH>
    struct HandleDeleter
    {
        void operator()(dvbpsi_t* handle) const
        {
            if (dvbpsi_decoder_present(handle)) {
                DETACH(handle);
            }
            dvbpsi_delete(handle);
        }
    };

    template <auto DETACH>
    using Handle = std::unique_ptr<dvbpsi_t, HandleDeleter<DETACH>>;

    struct Pmt
    {
        std::uint16_t serviceId;
        Handle<dvbpsi_pmt_detach> handle;
    };

    /// By PID. Several services may have their maps on one PID.
    using Pmts = std::multimap<std::uint16_t, Pmt>;

    static void Check(bool done)
    {
        if (!done) {
            throw std::bad_alloc();
        }
    }

    static void Push(dvbpsi_t* handle, const std::uint8_t* packet)
    {
        // Only reads from it, in spite of the parameter's type.
        dvbpsi_packet_push(handle, const_cast<std::uint8_t*>(packet));
    }

    template <auto DETACH>
    Handle<DETACH> NewHandle()
    {
        Handle<DETACH> handle(dvbpsi_new(&Complain, DVBPSI_MSG_WARN));
        Check(handle != nullptr);
        handle->p_sys = &m_sink;
        return handle;
    }

    static void OnPat(void* self, dvbpsi_pat_t* table) noexcept
    {
        const PatPointer pat(table);
        if (pat->b_current_next) {
            const ProgramAssociation programs = Convert(*pat);
            static_cast<Decoders*>(self)->WatchMaps(programs);
            static_cast<Decoders*>(self)->m_sink.OnPrograms(programs);
        }
    }

    static void OnPmt(void* self, dvbpsi_pmt_t* table) noexcept
    {
        const PmtPointer pmt(table);
        if (pmt->b_current_next) {
            static_cast<Decoders*>(self)->m_sink.OnProgramMap(Convert(*pmt));
        }
    }

    static void OnSubtable(dvbpsi_t* handle, std::uint8_t table, std::uint16_t extension,
                           void* self) noexcept
    {
        if (table == SDT_ACTUAL_TABLE) {
            dvbpsi_sdt_attach(handle, table, extension, &Decoders::OnSdt, self);
        }
    }

    static void OnSdt(void* self, dvbpsi_sdt_t* table) noexcept
    {
        const SdtPointer sdt(table);
        if (sdt->b_current_next) {
            static_cast<Decoders*>(self)->m_sink.OnDescriptions(Convert(*sdt));
        }
    }

    /// Watches the maps that @p programs names and no others. Decoders that stay keep what they
    /// have gathered, so their maps do not arrive again.
    void WatchMaps(const ProgramAssociation& programs)
    {
        Pmts old = std::exchange(m_pmts, {});
        for (const Program& program : programs.programs) {
            m_pmts.emplace(program.pmtPid, TakeOrMake(old, program));
        }
    }

    Pmt TakeOrMake(Pmts& old, const Program& program)
    {
        const auto [begin, end] = old.equal_range(program.pmtPid);
        for (auto each = begin; each != end; ++each) {
            if (each->second.serviceId == program.serviceId) {
                Pmt pmt = std::move(each->second);
                old.erase(each);
                return pmt;
            }
        }
        Pmt pmt = {program.serviceId, NewHandle<dvbpsi_pmt_detach>()};
        Check(dvbpsi_pmt_attach(pmt.handle.get(), program.serviceId, &Decoders::OnPmt, this));
        return pmt;
    }

    TableSink& m_sink;
    Handle<dvbpsi_pat_detach> m_pat;
    Handle<dvbpsi_DetachDemux> m_sdt;
    Pmts m_pmts;
};

ServiceFinder::ServiceFinder(TableSink& sink) : m_decoders(std::make_unique<Decoders>(sink)) {}

ServiceFinder::~ServiceFinder() = default;

void ServiceFinder::Push(const std::uint8_t* packet)
{
    const std::uint16_t pid = PidOf(packet);
    if (pid != NULL_PID && !IsScrambled(packet) && HasSoundPayload(packet)) {
        m_decoders->Push(pid, packet);
    }
}

} // namespace tsmon
