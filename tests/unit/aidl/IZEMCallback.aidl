// The client's callback interface, described for the platform's code
// generator. No package: the descriptor must be the bare "IZEMCallback".
interface IZEMCallback {
    int onCampaignEvent(int eventType, long campaignId, in byte[] campaignConfig, int eventArg,
            @utf8InCpp String token);
}
