#include "platform/MessageTable.h"

#include <cstdlib>
#include <string_view>

namespace Osb {

namespace {

constexpr int kLanguages = 8;

struct Row {
    uint32_t id;
    // Indexed by MessageLanguage: German, English, French, Italian, Japanese, Dutch, Swedish,
    // Spanish.
    std::u16string_view text[kLanguages];
};

// Every text ends with CR LF, and the one insert, %1!s!, stands on a line of its own, in every
// language alike: the event log file folds the line breaks and the clients show the texts as
// they are. The product names stay as they are in every language.
constexpr Row kTable[] = {
    {0x20000A0A,
     {u"Der Dienst Orvanta Vigil Watch wurde gestartet.\r\n",
      u"Orvanta Vigil Watch Service has Started.\r\n",
      u"Le service Orvanta Vigil Watch a démarré.\r\n",
      u"Il servizio Orvanta Vigil Watch è stato avviato.\r\n",
      u"Orvanta Vigil Watch サービスが開始されました。\r\n",
      u"De service Orvanta Vigil Watch is gestart.\r\n",
      u"Tjänsten Orvanta Vigil Watch har startats.\r\n",
      u"El servicio Orvanta Vigil Watch se ha iniciado.\r\n"}},
    {0x20000A0B,
     {u"Der Dienst Orvanta Vigil Watch wurde angehalten.\r\n",
      u"Orvanta Vigil Watch Service has Paused.\r\n",
      u"Le service Orvanta Vigil Watch a été suspendu.\r\n",
      u"Il servizio Orvanta Vigil Watch è stato sospeso.\r\n",
      u"Orvanta Vigil Watch サービスが一時停止されました。\r\n",
      u"De service Orvanta Vigil Watch is onderbroken.\r\n",
      u"Tjänsten Orvanta Vigil Watch har pausats.\r\n",
      u"El servicio Orvanta Vigil Watch se ha pausado.\r\n"}},
    {0x20000A0C,
     {u"Der Dienst Orvanta Vigil Watch wurde fortgesetzt.\r\n",
      u"Orvanta Vigil Watch Service has Resumed.\r\n",
      u"Le service Orvanta Vigil Watch a repris.\r\n",
      u"Il servizio Orvanta Vigil Watch è stato ripreso.\r\n",
      u"Orvanta Vigil Watch サービスが再開されました。\r\n",
      u"De service Orvanta Vigil Watch is hervat.\r\n",
      u"Tjänsten Orvanta Vigil Watch har återupptagits.\r\n",
      u"El servicio Orvanta Vigil Watch se ha reanudado.\r\n"}},
    {0x20000A0D,
     {u"Der Dienst Orvanta Vigil Watch wurde beendet.\r\n",
      u"Orvanta Vigil Watch Service has Stopped.\r\n",
      u"Le service Orvanta Vigil Watch s'est arrêté.\r\n",
      u"Il servizio Orvanta Vigil Watch è stato arrestato.\r\n",
      u"Orvanta Vigil Watch サービスが停止されました。\r\n",
      u"De service Orvanta Vigil Watch is gestopt.\r\n",
      u"Tjänsten Orvanta Vigil Watch har stoppats.\r\n",
      u"El servicio Orvanta Vigil Watch se ha detenido.\r\n"}},
    {0x22020A02,
     {u"Verfolgt Dateien, die von Orvanta Mirelle Studio verwaltet werden\r\n",
      u"Tracks files that are managed by Orvanta Mirelle Studio\r\n",
      u"Suit les fichiers gérés par Orvanta Mirelle Studio\r\n",
      u"Tiene traccia dei file gestiti da Orvanta Mirelle Studio\r\n",
      u"Orvanta Mirelle Studio で管理されているファイルを追跡します\r\n",
      u"Houdt bestanden bij die worden beheerd door Orvanta Mirelle Studio\r\n",
      u"Spårar filer som hanteras av Orvanta Mirelle Studio\r\n",
      u"Realiza el seguimiento de los archivos administrados por Orvanta Mirelle Studio\r\n"}},
    {0xE0000A0E,
     {u"Der Dienst Orvanta Vigil Watch wurde aufgrund eines Systemfehlers beendet.\r\n",
      u"Orvanta Vigil Watch Service has terminated because of a system error.\r\n",
      u"Le service Orvanta Vigil Watch s'est arrêté en raison d'une erreur système.\r\n",
      u"Il servizio Orvanta Vigil Watch è stato terminato a causa di un errore di sistema.\r\n",
      u"Orvanta Vigil Watch サービスはシステム エラーのため終了しました。\r\n",
      u"De service Orvanta Vigil Watch is beëindigd vanwege een systeemfout.\r\n",
      u"Tjänsten Orvanta Vigil Watch har avslutats på grund av ett systemfel.\r\n",
      u"El servicio Orvanta Vigil Watch ha terminado debido a un error del sistema.\r\n"}},
    {0xE0000A0F,
     {u"Der Dienst Orvanta Vigil Watch wurde aufgrund einer unerwarteten Ausnahme beendet.\r\n"
      u"%1!s!\r\n",
      u"Orvanta Vigil Watch Service has terminated because of an unexpected exception.\r\n"
      u"%1!s!\r\n",
      u"Le service Orvanta Vigil Watch s'est arrêté en raison d'une exception inattendue.\r\n"
      u"%1!s!\r\n",
      u"Il servizio Orvanta Vigil Watch è stato terminato a causa di un'eccezione imprevista.\r\n"
      u"%1!s!\r\n",
      u"Orvanta Vigil Watch サービスは予期しない例外のため終了しました。\r\n"
      u"%1!s!\r\n",
      u"De service Orvanta Vigil Watch is beëindigd vanwege een onverwachte uitzondering.\r\n"
      u"%1!s!\r\n",
      u"Tjänsten Orvanta Vigil Watch har avslutats på grund av ett oväntat undantag.\r\n"
      u"%1!s!\r\n",
      u"El servicio Orvanta Vigil Watch ha terminado debido a una excepción inesperada.\r\n"
      u"%1!s!\r\n"}},
    {0xE0000A10,
     {u"Der Dienst Orvanta Vigil Watch hat festgestellt, dass die vom Client empfangene "
      u"Nachricht einen ungültigen Protokollheader hat\r\n",
      u"Orvanta Vigil Watch Service has determined that the message received from the client "
      u"has an invalid protocol header\r\n",
      u"Le service Orvanta Vigil Watch a déterminé que le message reçu du client comporte un "
      u"en-tête de protocole non valide\r\n",
      u"Il servizio Orvanta Vigil Watch ha rilevato che il messaggio ricevuto dal client ha "
      u"un'intestazione di protocollo non valida\r\n",
      u"Orvanta Vigil Watch サービスは、クライアントから受信したメッセージのプロトコル "
      u"ヘッダーが無効であると判断しました\r\n",
      u"De service Orvanta Vigil Watch heeft vastgesteld dat het bericht dat van de client is "
      u"ontvangen een ongeldige protocolheader heeft\r\n",
      u"Tjänsten Orvanta Vigil Watch har fastställt att meddelandet som togs emot från klienten "
      u"har ett ogiltigt protokollhuvud\r\n",
      u"El servicio Orvanta Vigil Watch ha determinado que el mensaje recibido del cliente tiene "
      u"un encabezado de protocolo no válido\r\n"}},
    {0xE0000A11,
     {u"Der Dienst Orvanta Vigil Watch hat festgestellt, dass die vom Client empfangene "
      u"Nachricht eine ungültige Nachrichtenlänge hat\r\n",
      u"Orvanta Vigil Watch Service has determined that the message received from the client "
      u"has an invalid message length\r\n",
      u"Le service Orvanta Vigil Watch a déterminé que le message reçu du client comporte une "
      u"longueur de message non valide\r\n",
      u"Il servizio Orvanta Vigil Watch ha rilevato che il messaggio ricevuto dal client ha una "
      u"lunghezza del messaggio non valida\r\n",
      u"Orvanta Vigil Watch サービスは、クライアントから受信したメッセージの長さが無効であると"
      u"判断しました\r\n",
      u"De service Orvanta Vigil Watch heeft vastgesteld dat het bericht dat van de client is "
      u"ontvangen een ongeldige berichtlengte heeft\r\n",
      u"Tjänsten Orvanta Vigil Watch har fastställt att meddelandet som togs emot från klienten "
      u"har en ogiltig meddelandelängd\r\n",
      u"El servicio Orvanta Vigil Watch ha determinado que el mensaje recibido del cliente tiene "
      u"una longitud de mensaje no válida\r\n"}},
    {0xE0000A12,
     {u"Der Dienst Orvanta Vigil Watch hat festgestellt, dass die vom Client empfangene "
      u"Nachricht ungültige Daten enthält\r\n",
      u"Orvanta Vigil Watch Service has determined that the message received from the client "
      u"has invalid data\r\n",
      u"Le service Orvanta Vigil Watch a déterminé que le message reçu du client contient des "
      u"données non valides\r\n",
      u"Il servizio Orvanta Vigil Watch ha rilevato che il messaggio ricevuto dal client "
      u"contiene dati non validi\r\n",
      u"Orvanta Vigil Watch サービスは、クライアントから受信したメッセージに無効なデータが"
      u"含まれていると判断しました\r\n",
      u"De service Orvanta Vigil Watch heeft vastgesteld dat het bericht dat van de client is "
      u"ontvangen ongeldige gegevens bevat\r\n",
      u"Tjänsten Orvanta Vigil Watch har fastställt att meddelandet som togs emot från klienten "
      u"innehåller ogiltiga data\r\n",
      u"El servicio Orvanta Vigil Watch ha determinado que el mensaje recibido del cliente "
      u"contiene datos no válidos\r\n"}},
    {0xE0000A13,
     {u"Der Dienst Orvanta Vigil Watch hat festgestellt, dass die vom Client empfangene "
      u"Nachricht nicht unterstützt wird\r\n",
      u"Orvanta Vigil Watch Service has determined that the message received from the client "
      u"is unsupported\r\n",
      u"Le service Orvanta Vigil Watch a déterminé que le message reçu du client n'est pas pris "
      u"en charge\r\n",
      u"Il servizio Orvanta Vigil Watch ha rilevato che il messaggio ricevuto dal client non è "
      u"supportato\r\n",
      u"Orvanta Vigil Watch サービスは、クライアントから受信したメッセージがサポートされて"
      u"いないと判断しました\r\n",
      u"De service Orvanta Vigil Watch heeft vastgesteld dat het bericht dat van de client is "
      u"ontvangen niet wordt ondersteund\r\n",
      u"Tjänsten Orvanta Vigil Watch har fastställt att meddelandet som togs emot från klienten "
      u"inte stöds\r\n",
      u"El servicio Orvanta Vigil Watch ha determinado que el mensaje recibido del cliente no es "
      u"compatible\r\n"}},
    {0xE0000A14,
     {u"Der Dienst Orvanta Vigil Watch hat festgestellt, dass die vom Client empfangene "
      u"Nachricht eine ungültige Version angegeben hat\r\n",
      u"Orvanta Vigil Watch Service has determined that the message received from the client "
      u"specified an invalid version\r\n",
      u"Le service Orvanta Vigil Watch a déterminé que le message reçu du client indiquait une "
      u"version non valide\r\n",
      u"Il servizio Orvanta Vigil Watch ha rilevato che il messaggio ricevuto dal client "
      u"specificava una versione non valida\r\n",
      u"Orvanta Vigil Watch サービスは、クライアントから受信したメッセージに無効なバージョンが"
      u"指定されていると判断しました\r\n",
      u"De service Orvanta Vigil Watch heeft vastgesteld dat het bericht dat van de client is "
      u"ontvangen een ongeldige versie opgaf\r\n",
      u"Tjänsten Orvanta Vigil Watch har fastställt att meddelandet som togs emot från klienten "
      u"angav en ogiltig version\r\n",
      u"El servicio Orvanta Vigil Watch ha determinado que el mensaje recibido del cliente "
      u"especificó una versión no válida\r\n"}},
};

struct LanguageCode {
    char first;
    char second;
    MessageLanguage language;
};

constexpr LanguageCode kLanguageCodes[] = {
    {'d', 'e', MessageLanguage::kGerman},   {'e', 'n', MessageLanguage::kEnglish},
    {'f', 'r', MessageLanguage::kFrench},   {'i', 't', MessageLanguage::kItalian},
    {'j', 'a', MessageLanguage::kJapanese}, {'n', 'l', MessageLanguage::kDutch},
    {'s', 'v', MessageLanguage::kSwedish},  {'e', 's', MessageLanguage::kSpanish},
};

}  // namespace

MessageLanguage MessageLanguageFromEnvironment() {
    // The locale categories' own order of precedence: the first one set decides, so "LC_ALL=C"
    // means English whatever LANG says.
    for (const char* name : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* value = std::getenv(name);
        if (value == nullptr || value[0] == '\0') continue;
        for (const LanguageCode& code : kLanguageCodes) {
            if (value[0] == code.first && value[1] == code.second) return code.language;
        }
        return MessageLanguage::kEnglish;
    }
    return MessageLanguage::kEnglish;
}

std::u16string_view MessageText(uint32_t id, MessageLanguage language) {
    const int column = static_cast<int>(language);
    if (column < 0 || column >= kLanguages) return {};
    for (const Row& row : kTable) {
        if (row.id == id) return row.text[column];
    }
    return {};
}

}  // namespace Osb
