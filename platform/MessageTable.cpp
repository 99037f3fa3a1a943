#include "platform/MessageTable.h"

#include <cstdlib>
#include <cstring>

namespace Osb {

namespace {

constexpr int kLanguages = 8;

struct Row {
    uint32_t id;
    // In the order of MessageLanguage: German, English, French, Italian, Japanese, Dutch, Swedish,
    // Spanish.
    const char16_t* text[kLanguages];
};

// Every text ends with CR LF; %1!s! marks the one insert.
const Row kTable[] = {
    {0x20000A0A,
     {u"Orvanta Vigil Watch Service wurde gestartet.\r\n",
      u"Orvanta Vigil Watch Service has Started.\r\n",
      u"Orvanta Vigil Watch Service a démarré.\r\n",
      u"Orvanta Vigil Watch Service è stato avviato.\r\n",
      u"Orvanta Vigil Watch Service が開始しました。\r\n",
      u"Orvanta Vigil Watch Service is gestart.\r\n",
      u"Orvanta Vigil Watch Service har startats.\r\n",
      u"Orvanta Vigil Watch Service se ha iniciado.\r\n"}},
    {0x20000A0B,
     {u"Orvanta Vigil Watch Service wurde angehalten.\r\n",
      u"Orvanta Vigil Watch Service has Paused.\r\n",
      u"Orvanta Vigil Watch Service a été suspendu.\r\n",
      u"Orvanta Vigil Watch Service è stato sospeso.\r\n",
      u"Orvanta Vigil Watch Service が一時停止しました。\r\n",
      u"Orvanta Vigil Watch Service is gepauzeerd.\r\n",
      u"Orvanta Vigil Watch Service har pausats.\r\n",
      u"Orvanta Vigil Watch Service se ha pausado.\r\n"}},
    {0x20000A0C,
     {u"Orvanta Vigil Watch Service wurde fortgesetzt.\r\n",
      u"Orvanta Vigil Watch Service has Resumed.\r\n",
      u"Orvanta Vigil Watch Service a repris.\r\n",
      u"Orvanta Vigil Watch Service è stato ripreso.\r\n",
      u"Orvanta Vigil Watch Service が再開しました。\r\n",
      u"Orvanta Vigil Watch Service is hervat.\r\n",
      u"Orvanta Vigil Watch Service har återupptagits.\r\n",
      u"Orvanta Vigil Watch Service se ha reanudado.\r\n"}},
    {0x20000A0D,
     {u"Orvanta Vigil Watch Service wurde beendet.\r\n",
      u"Orvanta Vigil Watch Service has Stopped.\r\n",
      u"Orvanta Vigil Watch Service s'est arrêté.\r\n",
      u"Orvanta Vigil Watch Service è stato arrestato.\r\n",
      u"Orvanta Vigil Watch Service が停止しました。\r\n",
      u"Orvanta Vigil Watch Service is gestopt.\r\n",
      u"Orvanta Vigil Watch Service har stoppats.\r\n",
      u"Orvanta Vigil Watch Service se ha detenido.\r\n"}},
    {0x22020A02,
     {u"Verfolgt Dateien, die von Orvanta Mirelle Studio verwaltet werden\r\n",
      u"Tracks files that are managed by Orvanta Mirelle Studio\r\n",
      u"Suit les fichiers gérés par Orvanta Mirelle Studio\r\n",
      u"Tiene traccia dei file gestiti da Orvanta Mirelle Studio\r\n",
      u"Orvanta Mirelle Studio が管理するファイルを追跡します\r\n",
      u"Volgt bestanden die door Orvanta Mirelle Studio worden beheerd\r\n",
      u"Spårar filer som hanteras av Orvanta Mirelle Studio\r\n",
      u"Realiza el seguimiento de los archivos administrados por Orvanta Mirelle Studio\r\n"}},
    {0xE0000A0E,
     {u"Orvanta Vigil Watch Service wurde wegen eines Systemfehlers beendet.\r\n",
      u"Orvanta Vigil Watch Service has terminated because of a system error.\r\n",
      u"Orvanta Vigil Watch Service s'est terminé en raison d'une erreur système.\r\n",
      u"Orvanta Vigil Watch Service è terminato a causa di un errore di sistema.\r\n",
      u"Orvanta Vigil Watch Service はシステム エラーのため終了しました。\r\n",
      u"Orvanta Vigil Watch Service is beëindigd vanwege een systeemfout.\r\n",
      u"Orvanta Vigil Watch Service har avslutats på grund av ett systemfel.\r\n",
      u"Orvanta Vigil Watch Service ha terminado debido a un error del sistema.\r\n"}},
    {0xE0000A0F,
     {u"Orvanta Vigil Watch Service wurde wegen einer unerwarteten Ausnahme beendet.\r\n%1!s!\r\n",
      u"Orvanta Vigil Watch Service has terminated because of an unexpected exception.\r\n%1!s!\r\n",
      u"Orvanta Vigil Watch Service s'est terminé en raison d'une exception inattendue.\r\n%1!s!\r\n",
      u"Orvanta Vigil Watch Service è terminato a causa di un'eccezione imprevista.\r\n%1!s!\r\n",
      u"Orvanta Vigil Watch Service は予期しない例外のため終了しました。\r\n%1!s!\r\n",
      u"Orvanta Vigil Watch Service is beëindigd vanwege een onverwachte uitzondering.\r\n%1!s!\r\n",
      u"Orvanta Vigil Watch Service har avslutats på grund av ett oväntat undantag.\r\n%1!s!\r\n",
      u"Orvanta Vigil Watch Service ha terminado debido a una excepción inesperada.\r\n%1!s!\r\n"}},
    {0xE0000A10,
     {u"Orvanta Vigil Watch Service hat festgestellt, dass die vom Client empfangene Nachricht einen ungültigen Protokollkopf hat\r\n",
      u"Orvanta Vigil Watch Service has determined that the message received from the client has an invalid protocol header\r\n",
      u"Orvanta Vigil Watch Service a déterminé que le message reçu du client a un en-tête de protocole non valide\r\n",
      u"Orvanta Vigil Watch Service ha determinato che il messaggio ricevuto dal client ha un'intestazione di protocollo non valida\r\n",
      u"Orvanta Vigil Watch Service は、クライアントから受信したメッセージのプロトコル ヘッダーが無効であると判断しました\r\n",
      u"Orvanta Vigil Watch Service heeft vastgesteld dat het van de client ontvangen bericht een ongeldige protocolheader heeft\r\n",
      u"Orvanta Vigil Watch Service har fastställt att meddelandet från klienten har ett ogiltigt protokollhuvud\r\n",
      u"Orvanta Vigil Watch Service ha determinado que el mensaje recibido del cliente tiene un encabezado de protocolo no válido\r\n"}},
    {0xE0000A11,
     {u"Orvanta Vigil Watch Service hat festgestellt, dass die vom Client empfangene Nachricht eine ungültige Nachrichtenlänge hat\r\n",
      u"Orvanta Vigil Watch Service has determined that the message received from the client has an invalid message length\r\n",
      u"Orvanta Vigil Watch Service a déterminé que le message reçu du client a une longueur de message non valide\r\n",
      u"Orvanta Vigil Watch Service ha determinato che il messaggio ricevuto dal client ha una lunghezza non valida\r\n",
      u"Orvanta Vigil Watch Service は、クライアントから受信したメッセージの長さが無効であると判断しました\r\n",
      u"Orvanta Vigil Watch Service heeft vastgesteld dat het van de client ontvangen bericht een ongeldige berichtlengte heeft\r\n",
      u"Orvanta Vigil Watch Service har fastställt att meddelandet från klienten har en ogiltig meddelandelängd\r\n",
      u"Orvanta Vigil Watch Service ha determinado que el mensaje recibido del cliente tiene una longitud de mensaje no válida\r\n"}},
    {0xE0000A12,
     {u"Orvanta Vigil Watch Service hat festgestellt, dass die vom Client empfangene Nachricht ungültige Daten enthält\r\n",
      u"Orvanta Vigil Watch Service has determined that the message received from the client has invalid data\r\n",
      u"Orvanta Vigil Watch Service a déterminé que le message reçu du client contient des données non valides\r\n",
      u"Orvanta Vigil Watch Service ha determinato che il messaggio ricevuto dal client contiene dati non validi\r\n",
      u"Orvanta Vigil Watch Service は、クライアントから受信したメッセージに無効なデータが含まれていると判断しました\r\n",
      u"Orvanta Vigil Watch Service heeft vastgesteld dat het van de client ontvangen bericht ongeldige gegevens bevat\r\n",
      u"Orvanta Vigil Watch Service har fastställt att meddelandet från klienten innehåller ogiltiga data\r\n",
      u"Orvanta Vigil Watch Service ha determinado que el mensaje recibido del cliente contiene datos no válidos\r\n"}},
    {0xE0000A13,
     {u"Orvanta Vigil Watch Service hat festgestellt, dass die vom Client empfangene Nachricht nicht unterstützt wird\r\n",
      u"Orvanta Vigil Watch Service has determined that the message received from the client is unsupported\r\n",
      u"Orvanta Vigil Watch Service a déterminé que le message reçu du client n'est pas pris en charge\r\n",
      u"Orvanta Vigil Watch Service ha determinato che il messaggio ricevuto dal client non è supportato\r\n",
      u"Orvanta Vigil Watch Service は、クライアントから受信したメッセージがサポートされていないと判断しました\r\n",
      u"Orvanta Vigil Watch Service heeft vastgesteld dat het van de client ontvangen bericht niet wordt ondersteund\r\n",
      u"Orvanta Vigil Watch Service har fastställt att meddelandet från klienten inte stöds\r\n",
      u"Orvanta Vigil Watch Service ha determinado que el mensaje recibido del cliente no es compatible\r\n"}},
    {0xE0000A14,
     {u"Orvanta Vigil Watch Service hat festgestellt, dass die vom Client empfangene Nachricht eine ungültige Version angibt\r\n",
      u"Orvanta Vigil Watch Service has determined that the message received from the client specified an invalid version\r\n",
      u"Orvanta Vigil Watch Service a déterminé que le message reçu du client indique une version non valide\r\n",
      u"Orvanta Vigil Watch Service ha determinato che il messaggio ricevuto dal client specifica una versione non valida\r\n",
      u"Orvanta Vigil Watch Service は、クライアントから受信したメッセージが無効なバージョンを指定していると判断しました\r\n",
      u"Orvanta Vigil Watch Service heeft vastgesteld dat het van de client ontvangen bericht een ongeldige versie opgeeft\r\n",
      u"Orvanta Vigil Watch Service har fastställt att meddelandet från klienten anger en ogiltig version\r\n",
      u"Orvanta Vigil Watch Service ha determinado que el mensaje recibido del cliente especifica una versión no válida\r\n"}},
};

}  // namespace

MessageLanguage MessageLanguageFromEnvironment() {
    const char* value = nullptr;
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* v = std::getenv(name);
        if (v != nullptr && *v != '\0') {
            value = v;
            break;
        }
    }
    if (value == nullptr || std::strlen(value) < 2) return MessageLanguage::kEnglish;
    struct Prefix {
        const char* code;
        MessageLanguage language;
    };
    static const Prefix kPrefixes[] = {
        {"de", MessageLanguage::kGerman},  {"en", MessageLanguage::kEnglish},
        {"fr", MessageLanguage::kFrench},  {"it", MessageLanguage::kItalian},
        {"ja", MessageLanguage::kJapanese}, {"nl", MessageLanguage::kDutch},
        {"sv", MessageLanguage::kSwedish}, {"es", MessageLanguage::kSpanish},
    };
    for (const Prefix& p : kPrefixes) {
        // The language code stands alone or is followed by a territory or an encoding.
        if (std::strncmp(value, p.code, 2) == 0 &&
            (value[2] == '\0' || value[2] == '_' || value[2] == '.' || value[2] == '@')) {
            return p.language;
        }
    }
    return MessageLanguage::kEnglish;
}

std::u16string_view MessageText(uint32_t id, MessageLanguage language) {
    for (const Row& row : kTable) {
        if (row.id == id) return row.text[static_cast<int>(language)];
    }
    return {};
}

}  // namespace Osb
